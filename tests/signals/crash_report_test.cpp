// What the crash reporter leaves in the kernel log: how much of the stack, for which signals, and what it does when the
// log takes no more.
#include "crash_probe_run.h"
#include "framework_support.h"
#include "kservice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <poll.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
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

TEST_F(KernelLogReportTest, TheReportIsFlushed) {
    const crash ended = run_crash_probe(SIGSEGV, 0, "crash_probe", [] { support::trap_system_call(SYS_fsync); });
    ASSERT_TRUE(WIFSIGNALED(ended.status)) << ended.status;
    EXPECT_EQ(WTERMSIG(ended.status), SIGSYS);
    EXPECT_GT(report_lines().size(), 3U) << "after it was written";
}

TEST_F(KernelLogReportTest, ALineIsCutAt4096Characters) {
    const crash ended = run_crash_probe(SIGSEGV, 0, std::string(5000, 'p'));
    ASSERT_TRUE(WIFEXITED(ended.status)) << ended.status;
    const std::string start = "Segmentation fault (pid " + std::to_string(ended.pid) + ") ";
    const std::vector<std::string> lines = report_lines();
    ASSERT_GT(lines.size(), 3U);
    EXPECT_EQ(lines[0], start + std::string(4095 - start.size(), 'p'));
    EXPECT_THAT(lines[1], StartsWith(" 1. "));
}

TEST_F(KernelLogReportTest, AnAddressInNoFileStandsAlone) {
    ASSERT_TRUE(WIFEXITED(run_crash_probe(0).status));
    EXPECT_THAT(report_lines(), testing::Contains(testing::MatchesRegex(R"( [0-9]+\. \[0x[0-9a-f]+\])")));
}

TEST_F(KernelLogReportTest, TheStartOfASymbolHasOffset0) {
    ASSERT_TRUE(WIFEXITED(run_crash_probe(-1).status));
    EXPECT_THAT(report_lines(), testing::Contains(testing::MatchesRegex(
                                    R"( [0-9]+\. crash_probe\(crash_probe_data\+0\) \[0x[0-9a-f]+\])")));
}

TEST_F(KernelLogReportTest, AProgramAtAFixedAddressHasEmptyParenthesesForAPlaceWithoutAName) {
    ASSERT_TRUE(WIFEXITED(run_crash_probe(SIGSEGV, 0, "crash_probe", nullptr, CRASH_PROBE_FIXED).status));
    EXPECT_THAT(report_lines(),
                testing::Contains(testing::MatchesRegex(R"( [0-9]+\. crash_probe\(\) \[0x[0-9a-f]+\])")));
}

// A pipe with room for one record: what is in it before the next write is the first.
std::string first_record(const std::string& name) {
    constexpr size_t kPage = 4096;
    constexpr size_t kRoom = 960;
    EXPECT_EQ(unlink("/dev/kmsg"), 0);
    EXPECT_EQ(mkfifo("/dev/kmsg", 0600), 0);
    const support::descriptor pipe(open("/dev/kmsg", O_RDWR | O_CLOEXEC | O_NONBLOCK));
    EXPECT_EQ(fcntl(pipe.get(), F_SETPIPE_SZ, (int)kPage), (int)kPage);
    const std::string before(kPage - kRoom, 'b');
    EXPECT_EQ(write(pipe.get(), before.data(), before.size()), (ssize_t)before.size());
    std::thread probe([&] { (void)run_crash_probe(SIGSEGV, 20, name); });
    int filled = 0;
    EXPECT_TRUE(support::eventually(
        [&] { return ioctl(pipe.get(), FIONREAD, &filled) == 0 && (size_t)filled > before.size(); }));
    std::string text(kPage, '\0');
    text.resize((size_t)std::max<ssize_t>(0, read(pipe.get(), text.data(), text.size())));
    std::string rest(kPage, '\0');
    std::atomic<bool> ended = false;
    std::thread drain([&] {
        while (!ended) {
            pollfd more = {pipe.get(), POLLIN, 0};
            (void)poll(&more, 1, 100);
            (void)!read(pipe.get(), rest.data(), rest.size());
        }
    });
    probe.join();
    ended = true;
    drain.join();
    EXPECT_EQ(unlink("/dev/kmsg"), 0);
    write_file("/dev/kmsg", "");
    return text.substr(std::min(text.size(), before.size()));
}

TEST_F(KernelLogReportTest, ARecordHasAsManyWholeLinesAs960Characters) {
    const std::string record = first_record("crash_probe");
    EXPECT_THAT(record, StartsWith("Segmentation fault (pid "));
    EXPECT_LE(record.size(), 960U);
    EXPECT_GT(record.size(), 800U) << "no frame's line of these is as long as the rest";
    EXPECT_THAT(record, testing::EndsWith("\n"));
}

TEST_F(KernelLogReportTest, ALongerLineIsCutIntoRecordsOf960Characters) {
    EXPECT_EQ(first_record(std::string(5000, 'p')).size(), 960U);
}

int status_of_report(int signal, const std::function<void()>& prepare) {
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        prepare();
        _ks_backtrace(signal);
        _exit(100);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

TEST_F(KernelLogReportTest, ASignalWithoutANameIsCalledByItsNumber) {
    const int status = status_of_report(120, [] {});
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_THAT(read_file("/dev/kmsg"), StartsWith("Unknown signal 120 (pid "));
}

TEST_F(KernelLogReportTest, WithoutAKernelLogNoReportIsMade) {
    ASSERT_EQ(unlink("/dev/kmsg"), 0);
    const int status = status_of_report(SIGSEGV, [] { support::trap_system_call(SYS_memfd_create); });
    write_file("/dev/kmsg", "");
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(KernelLogReportTest, WithoutMemoryForTheStackNothingIsLogged) {
    const int status = status_of_report(SIGSEGV, [] { support::fail_system_call(SYS_memfd_create, ENOSYS); });
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(read_file("/dev/kmsg"), "");
}

} // namespace
