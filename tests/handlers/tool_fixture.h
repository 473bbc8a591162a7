// What tests of handlers that run host programs share.
#ifndef VEXPROD_TESTS_HANDLERS_TOOL_FIXTURE_H
#define VEXPROD_TESTS_HANDLERS_TOOL_FIXTURE_H

#include "log.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <vector>

class ToolFixture : public testing::Test {
protected:
    using strings = std::vector<std::string>;

    void SetUp() override {
        ASSERT_NE(::getenv("HOSTSIM"), nullptr) << "these tests write to the host's fixed paths";
        ::log_set_dir("/tmp/handler-log");
        std::filesystem::remove(kLog);
        for (const std::string& file : kept_files()) {
            std::filesystem::remove(file);
        }
    }

    static std::string log() { return read_file(kLog); }

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

    /// Puts a shell script in the place of the host's program at `path`.
    static void replace_by_script(const std::string& path, const std::string& body) {
        std::filesystem::remove(path);
        write_file(path, "#!/bin/sh\n" + body + "\n");
        ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    }

private:
    static constexpr const char* kLog = "/tmp/handler-log/.lyn_ks_vexprod.log";
};

#endif
