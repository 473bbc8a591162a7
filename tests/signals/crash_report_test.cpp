// What the crash reporter leaves in the kernel log: how much of the stack, for which signals, and what it does when the
// log takes no more.
#include "crash_probe_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class KernelLogReportTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "the kernel log must be the simulated host's";
        ASSERT_EQ(truncate("/dev/kmsg", 0), 0);
    }
    static std::vector<std::string> report_lines() {
        std::istringstream report(read_file("/dev/kmsg"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(report, line);) {
            lines.push_back(line);
        }
        return lines;
    }
};

// 50 addresses are captured, and the reporter's own two left out.
TEST_F(KernelLogReportTest, ADeepStackIsCutAfter48NumberedLines) {
    const crash ended = run_crash_probe(SIGSEGV, 100);
    ASSERT_TRUE(WIFEXITED(ended.status)) << ended.status;
    EXPECT_EQ(WEXITSTATUS(ended.status), 1);
    const std::vector<std::string> lines = report_lines();
    ASSERT_EQ(lines.size(), 1U + 48U);
    size_t descending = 0;
    for (size_t i = 1; i < lines.size(); ++i) {
        char number[32];
        (void)snprintf(number, sizeof(number), "%2zu. ", i);
        EXPECT_THAT(lines[i], StartsWith(number));
        descending += lines[i].find("(crash_probe_descend+0x") != std::string::npos ? 1 : 0;
    }
    EXPECT_THAT(lines[1], StartsWith(" 1. "));
    EXPECT_THAT(lines[48], StartsWith("48. ")) << "the numbers stand right-aligned";
    EXPECT_GT(descending, 30U) << "the innermost frames are what is kept"; // a sanitizer has some of its own
    EXPECT_THAT(lines[48], HasSubstr("(crash_probe_descend+0x"));
}

TEST_F(KernelLogReportTest, EachCrashSignalIsCalledByItsName) {
    const struct {
        int signal;
        const char* text;
    } all[] = {{SIGABRT, "Aborted"}, {SIGBUS, "Bus error"}, {SIGFPE, "Floating point exception"}};
    for (const auto& each : all) {
        ASSERT_EQ(truncate("/dev/kmsg", 0), 0);
        const crash ended = run_crash_probe(each.signal);
        ASSERT_TRUE(WIFEXITED(ended.status)) << each.text << ": " << ended.status;
        EXPECT_EQ(WEXITSTATUS(ended.status), 1) << each.text;
        EXPECT_EQ(ended.standard_error, std::string(each.text) + "\n");
        const std::vector<std::string> lines = report_lines();
        ASSERT_GT(lines.size(), 3U) << each.text;
        EXPECT_EQ(lines[0], std::string(each.text) + " (pid " + std::to_string(ended.pid) + ") crash_probe:");
        EXPECT_THAT(lines[1], StartsWith(" 1. "));
        EXPECT_THAT(read_file("/dev/kmsg"), HasSubstr("(crash_probe_innermost+0x")) << each.text;
    }
}

TEST_F(KernelLogReportTest, AKernelLogThatTakesNothingEndsTheReportAndTheProcessWithStatus1) {
    ASSERT_EQ(unlink("/dev/kmsg"), 0);
    std::filesystem::create_symlink("full", "/dev/kmsg"); // opens well, and fails every write
    const crash ended = run_crash_probe();
    ASSERT_EQ(unlink("/dev/kmsg"), 0);
    write_file("/dev/kmsg", "");
    ASSERT_TRUE(WIFEXITED(ended.status)) << "it went on trying: " << ended.status;
    EXPECT_EQ(WEXITSTATUS(ended.status), 1);
    EXPECT_EQ(ended.standard_error, "Segmentation fault\n");
}

} // namespace
