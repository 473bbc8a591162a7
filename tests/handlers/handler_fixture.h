// What tests of handlers share: the daemon's log, as lines that do not depend on the clock or on source lines.
#ifndef VEXPROD_TESTS_HANDLERS_HANDLER_FIXTURE_H
#define VEXPROD_TESTS_HANDLERS_HANDLER_FIXTURE_H

#include "log.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

using strings = std::vector<std::string>;

inline const std::string kInputError = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
inline const std::string kPaserFail = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";

class HandlerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("HOSTSIM"), nullptr) << "these tests write to the host's fixed paths";
        log_set_dir("/tmp/handler-log");
        forget_log();
    }

    static void forget_log() { (void)unlink("/tmp/handler-log/.lyn_ks_vexprod.log"); }

    /// The messages logged since, in order: without process and time, and with N for the source line.
    static strings logged() {
        static const std::regex stamp(R"(^\[[0-9]+\] \[[^\]]*\] )");
        static const std::regex source_line(R"(^(\[[A-Za-z_0-9]+\])\[[0-9]+\])");
        std::istringstream log(read_file("/tmp/handler-log/.lyn_ks_vexprod.log"));
        strings messages;
        for (std::string line; std::getline(log, line);) {
            messages.push_back(std::regex_replace(std::regex_replace(line, stamp, ""), source_line, "$1[N]"));
        }
        return messages;
    }

    static void registry(const std::string& text) { write_file("/etc/config/zpkg.conf", text); }
};

#endif
