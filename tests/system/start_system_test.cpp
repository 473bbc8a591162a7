// What the real daemon takes over from its starter and its surroundings, and what it leaves behind.
#include "daemon_process.h"
#include "host_tool.h"
#include "library_stand_in.h"
#include "system_helpers.h"
#include "unique_fd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

class StartSystemTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "runs in the simulated host only";
        (void)unlink(kDaemonLog);
    }
    std::string reply_;
};

TEST_F(StartSystemTest, AStartStopRunDoesNotWait) {
    const auto begin = steady_clock::now();
    daemon_process daemon({"-t"});
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_LT(steady_clock::now() - begin, seconds(5)); // the idle deadline is 10 seconds
}

TEST_F(StartSystemTest, AStartStopRunTakesOverBothQueuesAndRemovesThem) {
    for (const int key : {kNotifyQueue, kEventQueue}) {
        ASSERT_NE(msgget(key, IPC_CREAT | IPC_EXCL | 0600), -1) << key;
    }
    daemon_process daemon({"-t"});
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_FALSE(queue_exists(kNotifyQueue));
    EXPECT_FALSE(queue_exists(kEventQueue));
}

TEST_F(StartSystemTest, TheLibraryPathIsGoneFromItsOwnEnvironmentAndNothingElse) {
    const library_stand_in accounts("/usr/lib/libhcore_NAS.so.0.0"); // called inside the daemon
    setenv("LD_LIBRARY_PATH", "/nowhere", 1);
    setenv("LD_LIBRARY_PATHS", "/elsewhere", 1);
    daemon_process daemon;
    unsetenv("LD_LIBRARY_PATH");
    unsetenv("LD_LIBRARY_PATHS");
    ASSERT_TRUE(daemon.serves());
    for (const char* variable : {"LD_LIBRARY_PATHS", "LD_LIBRARY_PATH"}) {
        accounts.set("show_variable", variable);
        EXPECT_EQ(call_service(kMain, "get_all_users", "", &reply_), 0U);
    }
    EXPECT_EQ(accounts.calls(), "Get_Local_User_List_V2 [0] [0] [null]\n"
                                "LD_LIBRARY_PATHS=/elsewhere\n"
                                "Get_Local_User_List_V2 [0] [0] [null]\n"
                                "LD_LIBRARY_PATH is not set\n");
    EXPECT_EQ(daemon.stop(), 0);
}

// The test's own standard input and folder, to be inherited: neither of them what a daemon gives itself.
class foreign_surroundings {
public:
    foreign_surroundings() {
        const unique_fd input(open((folder_ / "input").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_EQ(dup2(input.get(), STDIN_FILENO), STDIN_FILENO);
        std::filesystem::current_path(folder_.path());
    }
    foreign_surroundings(const foreign_surroundings&) = delete;
    foreign_surroundings& operator=(const foreign_surroundings&) = delete;
    ~foreign_surroundings() {
        std::error_code ignored;
        std::filesystem::current_path(before_, ignored);
        dup2(kept_stdin_.get(), STDIN_FILENO);
    }

private:
    std::filesystem::path before_ = std::filesystem::current_path();
    unique_fd kept_stdin_{fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)};
    test_folder folder_;
};

// The process that wrote the first line with `part` in it.
pid_t writer_of(const std::string& part) {
    const std::string log = read_file(kDaemonLog);
    const size_t begin = log.rfind('\n', log.find(part)) + 1; // npos + 1 is 0
    return static_cast<pid_t>(std::stol(log.substr(begin + 1)));
}

TEST_F(StartSystemTest, InTheBackgroundItsStandardStreamsAreTheNullDeviceAndItsFolderTheRoot) {
    const foreign_surroundings surroundings;
    daemon_process foreground({"-d"});
    EXPECT_EQ(foreground.wait(), 0) << "the foreground process ends at once";
    // No request before the look: each one points standard output at the null device in the end.
    ASSERT_TRUE(wait_until([] { return read_file(kDaemonLog).find("] ks_send_mail_start.\n") != std::string::npos; }));
    const pid_t pid = writer_of("] ks_send_mail_start.");
    const std::string proc = "/proc/" + std::to_string(pid);
    for (const char* fd : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink(proc + "/fd/" + fd), "/dev/null") << fd;
        struct stat status = {};
        ASSERT_EQ(stat((proc + "/fd/" + fd).c_str(), &status), 0) << fd;
        EXPECT_TRUE(S_ISCHR(status.st_mode)) << fd;
        EXPECT_EQ(status.st_rdev, makedev(1, 3)) << fd;
    }
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/cwd"), "/");
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(wait_until([&] { return !file_exists(proc + "/cwd"); }));
}

TEST_F(StartSystemTest, InTheForegroundItKeepsItsStarterStreamsAndFolder) {
    const foreign_surroundings surroundings;
    daemon_process daemon;
    ASSERT_TRUE(wait_until([] { return read_file(kDaemonLog).find("] ks_send_mail_start.\n") != std::string::npos; }));
    const std::string proc = "/proc/" + std::to_string(daemon.pid());
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/fd/0"), std::filesystem::current_path() / "input");
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/fd/1").filename(), "stdout");
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/fd/2").filename(), "stderr");
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/cwd"), std::filesystem::current_path());
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(StartSystemTest, AnEarlierInstanceCountsUntilItIsAZombie) {
    const side_process earlier([] {
        prctl(PR_SET_NAME, "vexprod");
        for (;;) {
            pause();
        }
    });
    const std::string proc = "/proc/" + std::to_string(earlier.pid());
    ASSERT_TRUE(wait_until([&] { return read_file(proc + "/comm") == "vexprod\n"; }));
    daemon_process refused;
    const int status = refused.wait();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 255);

    kill(earlier.pid(), SIGKILL);
    siginfo_t ended = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(earlier.pid()), &ended, WEXITED | WNOWAIT), 0);
    ASSERT_THAT(read_file(proc + "/stat"), testing::HasSubstr("(vexprod) Z "));
    daemon_process next;
    ASSERT_TRUE(next.serves());
    EXPECT_EQ(count_of(read_file(kDaemonLog), "] warning: re-entry.\n"), 1U) << "the one of before";
    EXPECT_EQ(next.stop(), 0);
}

TEST_F(StartSystemTest, StartedWithChildrenIgnoredAndSigtermBlockedItLearnsHowToolsEndAndStops) {
    host_tool tool("/usr/local/bin/zanalytic_tool");
    tool.exits(0, 1).exits(1, 2).exits(0, 3);
    sigset_t term;
    sigset_t before;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, &before);
    (void)signal(SIGCHLD, SIG_IGN);
    daemon_process daemon;
    (void)signal(SIGCHLD, SIG_DFL);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    ASSERT_TRUE(daemon.serves());
    const char* request = R"({"provide_id":"p","command":"flush"})";
    for (const char* result : {"\"result\":0", "\"result\":-1", "\"result\":0"}) {
        ASSERT_EQ(call_service(kMain, "system_call_cloud_analysis_flush", request, &reply_), 0U);
        EXPECT_THAT(reply_, testing::HasSubstr(result));
    }
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

} // namespace
