// What tests of handlers share: the daemon's log, as lines that do not depend on the clock or on source lines.
#ifndef VEXPROD_TESTS_HANDLERS_HANDLER_FIXTURE_H
#define VEXPROD_TESTS_HANDLERS_HANDLER_FIXTURE_H

#include "log.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <cstdlib>
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
        std::istringstream log(read_file("/tmp/handler-log/.lyn_ks_vexprod.log"));
        strings messages;
        for (std::string line; std::getline(log, line);) {
            messages.push_back(without_line(without_stamp(line)));
        }
        return messages;
    }

    /// "[00042] [Sun Nov 15 11:36:48 ] message" gives "message"; the second line of a message stays as it is.
    static std::string without_stamp(const std::string& line) {
        const std::size_t end = line.find(" ] ");
        return line.rfind('[', 0) == 0 && end != std::string::npos ? line.substr(end + 3) : line;
    }
    /// "[function][57] text" gives "[function][N] text".
    static std::string without_line(const std::string& message) {
        const std::size_t start = message.find("][");
        const std::size_t end = start == std::string::npos ? start : message.find(']', start + 2);
        if (message.rfind('[', 0) != 0 || end == std::string::npos) {
            return message;
        }
        return message.substr(0, start + 2) + "N" + message.substr(end);
    }

    static void registry(const std::string& text) { write_file("/etc/config/zpkg.conf", text); }
};

#endif
