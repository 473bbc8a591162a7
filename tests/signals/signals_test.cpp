#include "crash_probe_run.h"
#include "kservice.h"
#include "test_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <sstream>
#include <sys/resource.h>
#include <vector>

namespace {

using testing::Eq;
using testing::MatchesRegex;
using testing::StartsWith;

volatile sig_atomic_t last_signal = 0;
volatile sig_atomic_t signal_count = 0;

void remember(int signum) {
    last_signal = signum;
    signal_count = signal_count + 1;
    errno = ENOTTY;
}

// The disposition as the kernel has it, less the flag that the C library adds for itself.
struct sigaction disposition_of(int signum) {
    struct sigaction action = {};
    EXPECT_EQ(sigaction(signum, nullptr, &action), 0);
    action.sa_flags &= ~0x04000000; // SA_RESTORER
    return action;
}

bool is_empty(const sigset_t& mask) {
    for (int signum = 1; signum < 32; ++signum) {
        if (sigismember(&mask, signum) == 1) {
            return false;
        }
    }
    return true;
}

int status_of(const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        body();
        _exit(100);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

TEST(SignalsDeathTest, NumbersOutsideTheTableAreMisuse) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        ks_signal(0, remember), testing::KilledBySignal(SIGABRT),
        Eq("[ABORT] @ks_signal() cannot handle signal number 0: `signum > 0 && signum < MAX_SIGNAL_SIZE'\n" AFTER_ABORT));
    EXPECT_EXIT(
        ks_signal(32, remember), testing::KilledBySignal(SIGABRT),
        Eq("[ABORT] @ks_signal() cannot handle signal number 32: `signum > 0 && signum < MAX_SIGNAL_SIZE'\n" AFTER_ABORT));
    EXPECT_EXIT(
        ks_signal(-1, remember), testing::KilledBySignal(SIGABRT),
        Eq("[ABORT] @ks_signal() cannot handle signal number -1: `signum > 0 && signum < MAX_SIGNAL_SIZE'\n" AFTER_ABORT));
}

TEST(SignalsTest, TheTableHas32Slots) {
    EXPECT_EQ(sizeof(signal_handler) / sizeof(signal_handler[0]), 32U);
}

TEST(SignalsTest, TheLastNumberOfTheTableIsRouted) {
    last_signal = 0;
    ks_signal(31, remember);
    EXPECT_EQ(signal_handler[31], &remember);
    raise(31);
    EXPECT_EQ(last_signal, 31);
    ks_signal(31, nullptr);
}

TEST(SignalsTest, ARoutedSignalReachesItsCallbackEveryTime) {
    signal_count = 0;
    ks_signal(SIGUSR1, remember);
    raise(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ(signal_count, 2);
    EXPECT_EQ(last_signal, SIGUSR1);
    ks_signal(SIGUSR1, nullptr);
}

TEST(SignalsTest, InstallsTheHandlerWithAnEmptyMaskAndSiginfoAlone) {
    ks_signal(SIGUSR1, remember);
    const struct sigaction action = disposition_of(SIGUSR1);
    EXPECT_EQ(action.sa_handler, &ks_signal_handler);
    EXPECT_EQ(action.sa_flags, 4);
    EXPECT_TRUE(is_empty(action.sa_mask));
    ks_signal(SIGUSR1, nullptr);
}

TEST(SignalsTest, NoCallbackRestoresTheDefaultAction) {
    ks_signal(SIGUSR1, remember);
    ks_signal(SIGUSR1, nullptr);
    EXPECT_EQ(signal_handler[SIGUSR1], nullptr);
    EXPECT_EQ(disposition_of(SIGUSR1).sa_handler, SIG_DFL);
}

TEST(SignalsTest, TheHandlerIgnoresSignalsWithoutACallback) {
    last_signal = 0;
    for (const int signum : {SIGUSR2, 0, -1, 32, 64}) {
        ks_signal_handler(signum);
    }
    EXPECT_EQ(last_signal, 0);
}

TEST(SignalsTest, NumberZeroIsNoSignal) {
    last_signal = -1;
    signal_handler[0] = remember;
    ks_signal_handler(0);
    signal_handler[0] = nullptr;
    EXPECT_EQ(last_signal, -1);
    ks_signal(1, remember);
    raise(1);
    ks_signal(1, nullptr);
    EXPECT_EQ(last_signal, 1);
}

TEST(SignalsTest, TheInterruptedCodeKeepsItsErrno) {
    ks_signal(SIGUSR1, remember);
    errno = EBADF;
    raise(SIGUSR1);
    EXPECT_EQ(errno, EBADF);
    ks_signal(SIGUSR1, nullptr);
}

TEST(SignalsTest, BacktraceTakesTheFourCrashSignalsAndMakesAllRoutedOnesOneShot) {
    EXPECT_TRUE(passes_in_own_process([] {
        const auto is_ours = [](int signum) { return signum == 1 || signum == SIGUSR1 || signum == 31; };
        for (int signum = 1; signum < 32; ++signum) {
            if (is_ours(signum)) {
                ks_signal(signum, remember);
            }
        }
        ks_backtrace();
        for (int signum = 1; signum < 32; ++signum) {
            const bool crash = signum == 6 || signum == 7 || signum == 8 || signum == 11;
            const bool routed = crash || is_ours(signum);
            EXPECT_EQ(signal_handler[signum], crash ? &_ks_backtrace : routed ? &remember : nullptr) << signum;
            const struct sigaction action = disposition_of(signum);
            EXPECT_EQ(action.sa_handler == &ks_signal_handler, routed) << signum;
            if (routed) {
                EXPECT_EQ(static_cast<unsigned>(action.sa_flags), 0x80000004U) << signum;
                EXPECT_TRUE(is_empty(action.sa_mask)) << signum;
            }
        }
    }));
}

TEST(SignalsTest, ASecondCrashSignalRunsTheDefaultAction) {
    for (const int signum : {SIGABRT, SIGBUS, SIGFPE, SIGSEGV}) {
        const int status = status_of([signum] {
            const rlimit no_core = {};
            setrlimit(RLIMIT_CORE, &no_core);
            ks_backtrace();
            signal_handler[signum] = remember; // returns, as the reporter never does
            raise(signum);
            if (last_signal != signum) {
                _exit(101);
            }
            raise(signum);
        });
        ASSERT_TRUE(WIFSIGNALED(status)) << signum << ": " << status;
        EXPECT_EQ(WTERMSIG(status), signum);
    }
}

class CrashReportTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "the kernel log must be the simulated host's";
        ASSERT_EQ(truncate("/dev/kmsg", 0), 0);
    }
};

TEST_F(CrashReportTest, AFaultInAWorkerLeavesItsNumberedStackInTheKernelLog) {
    const crash ended = run_crash_probe();
    ASSERT_TRUE(WIFEXITED(ended.status)) << ended.status;
    EXPECT_EQ(WEXITSTATUS(ended.status), 1);
    EXPECT_EQ(ended.standard_error, "Segmentation fault\n");

    std::istringstream report(read_file("/dev/kmsg"));
    std::string line;
    ASSERT_TRUE(std::getline(report, line));
    EXPECT_EQ(line, "Segmentation fault (pid " + std::to_string(ended.pid) + ") crash_probe:");
    std::vector<std::string> frames;
    while (std::getline(report, line)) {
        frames.push_back(line);
    }
    ASSERT_GE(frames.size(), 3U);
    EXPECT_LE(frames.size(), 48U);
    size_t innermost = frames.size();
    size_t serve = frames.size();
    for (size_t i = 0; i < frames.size(); ++i) {
        char number[32];
        (void)snprintf(number, sizeof(number), "%2zu. ", i + 1);
        EXPECT_THAT(frames[i], StartsWith(number));
        EXPECT_THAT(frames[i], testing::AnyOf(MatchesRegex(R"( ?[0-9]+\. .*\(.*\) \[0x[0-9a-f]+\])"),
                                              MatchesRegex(R"( ?[0-9]+\. .*\[0x[0-9a-f]+\])")));
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__) // their backtrace() has a frame of its own
        EXPECT_EQ(frames[i].find("ks_backtrace"), std::string::npos) << frames[i];
        EXPECT_EQ(frames[i].find("ks_signal_handler"), std::string::npos) << frames[i];
#endif
        innermost = frames[i].find("(crash_probe_innermost+0x") != std::string::npos ? i : innermost;
        serve = frames[i].find("(crash_probe_serve+0x") != std::string::npos ? i : serve;
    }
    ASSERT_LT(serve, frames.size());
    EXPECT_EQ(innermost + 1, serve);
}

TEST_F(CrashReportTest, WithoutAKernelLogTheProcessStillEndsWithStatus1) {
    ASSERT_EQ(unlink("/dev/kmsg"), 0);
    const crash ended = run_crash_probe();
    ASSERT_TRUE(WIFEXITED(ended.status)) << ended.status;
    EXPECT_EQ(WEXITSTATUS(ended.status), 1);
    EXPECT_EQ(ended.standard_error, "Segmentation fault\n");
    EXPECT_FALSE(file_exists("/dev/kmsg")) << "opened, never made";
    write_file("/dev/kmsg", "");
}

} // namespace
