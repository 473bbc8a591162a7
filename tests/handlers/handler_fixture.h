// What tests of handlers share: a host that earlier tests left no trace in, the daemon's log as lines that do not
// depend on the clock or on source lines, programs to put in the place of the host's, and the temporary files that are
// left.
#ifndef VEXPROD_TESTS_HANDLERS_HANDLER_FIXTURE_H
#define VEXPROD_TESTS_HANDLERS_HANDLER_FIXTURE_H

#include "displaced_files.h"
#include "log.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using strings = std::vector<std::string>;

inline const std::string kInputError = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
inline const std::string kPaserFail = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";

/// The reply of `handler` whose host action failed.
inline std::string failure(const std::string& handler) {
    return "{\"error_msg\":\"" + handler + " fail\",\"result\":-1}\n";
}

class HandlerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(std::getenv("HOSTSIM"), nullptr) << "these tests write to the host's fixed paths";
        log_set_dir(kLogFolder);
        forget_log();
        remove_kept_files();
        (void)unsetenv("ZPKGD"); // a handler sets it for good
    }

    static void forget_log() { (void)unlink(kLog); }
    /// The log as it is.
    static std::string log() { return read_file(kLog); }
    /// The messages logged since, in order: without process and time, and with N for the source line.
    static strings logged() {
        std::istringstream stream(log());
        strings messages;
        for (std::string line; std::getline(stream, line);) {
            messages.push_back(without_line(without_stamp(line)));
        }
        return messages;
    }
    /// The last of them; empty when nothing was logged.
    static std::string last_logged() {
        const strings messages = logged();
        return messages.empty() ? "" : messages.back();
    }

    /// A tool's script that removes the temporary files, and files only: the project may be a folder of such a name.
    static constexpr const char* kRemoveKeptFiles = "/usr/bin/find /tmp -maxdepth 1 -type f -name 'vexprod-*' -delete";

    /// The temporary files that are there.
    static strings kept_files() {
        strings found;
        for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
            if (entry.is_regular_file() && entry.path().filename().string().starts_with("vexprod-")) {
                found.push_back(entry.path().string());
            }
        }
        return found;
    }
    static void remove_kept_files() {
        for (const std::string& file : kept_files()) {
            std::filesystem::remove(file);
        }
    }

    static void registry(const std::string& text) { write_file("/etc/config/zpkg.conf", text); }

    /// Programs that are not the host's own while the test runs.
    displaced_files programs;

private:
    // Not in /tmp, which some tests make unwritable.
    static constexpr const char* kLogFolder = "/var/log/handler-test";
    static constexpr const char* kLog = "/var/log/handler-test/.lyn_ks_vexprod.log";

    /// "[00042] [Sun Nov 15 11:36:48 ] message" gives "message"; the second line of a message stays as it is.
    static std::string without_stamp(const std::string& line) {
        const std::size_t end = line.find(" ] ");
        return line.rfind('[', 0) == 0 && end != std::string::npos ? line.substr(end + 3) : line;
    }
    /// "[function][57] text" gives "[function][N] text".
    static std::string without_line(const std::string& message) {
        const std::size_t start = message.find(']');
        if (message.rfind('[', 0) != 0 || start == std::string::npos || message.compare(start, 2, "][") != 0) {
            return message;
        }
        const std::size_t end = message.find_first_not_of("0123456789", start + 2);
        const bool is_number = end != std::string::npos && end > start + 2 && message[end] == ']';
        return is_number ? message.substr(0, start + 2) + "N" + message.substr(end) : message;
    }
};

#endif
