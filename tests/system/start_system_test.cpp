// What the real daemon takes over from its starter and its surroundings, and what it leaves behind.
#include "daemon_process.h"
#include "displaced_files.h"
#include "host_tool.h"
#include "library_stand_in.h"
#include "system_helpers.h"
#include "unique_fd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr const char* kPackageRegistry = "/etc/config/zpkg.conf";

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

TEST_F(StartSystemTest, TwoRequestsOfTheMainServiceAndFiveOfTheMailServiceRunAtOnce) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    // The main thread, two that accept, two that relay, and the workers.
    EXPECT_TRUE(kSanitized || wait_until([&] { return daemon.count("task") == 5 + 2 + 5; })) << daemon.count("task");
    const waiting_mails mails(daemon.pid(), 5);
    std::array<fifo_gate, 2> gates;
    std::vector<std::thread> clients;
    for (const fifo_gate& gate : gates) {
        clients.emplace_back([request = R"({"command":["/bin/cat",")" + gate.path() + R"("]})"] {
            std::string reply;
            EXPECT_EQ(call_service(kMain, "exec_cli", request, &reply, 60), 0U);
        });
    }
    for (fifo_gate& gate : gates) {
        EXPECT_TRUE(gate.is_reached());
    }
    for (fifo_gate& gate : gates) {
        gate.let_go();
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(StartSystemTest, AnErrorStreamThatNobodyHasOpenAnyMoreDoesNotEndIt) {
    displaced_files config;
    config.take_away(kPackageRegistry);
    write_file(kPackageRegistry, "[VexHubServer]\nOther = 1\n"); // which it says on standard error
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    const unique_fd broken(ends[1]);
    daemon_process daemon({}, broken.get());
    const int status = daemon.wait();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 255);
}

TEST_F(StartSystemTest, ALogFolderThatCannotBeMadeIsSaidAtOnceAndDoesNotStopTheStart) {
    displaced_files config;
    config.take_away(kPackageRegistry);
    write_file(kPackageRegistry, "[VexHubServer]\nInstall_Path = /nowhere/at/all\n");
    daemon_process daemon;
    // Before any request: what is in the buffer by then would go to that one's caller.
    EXPECT_TRUE(wait_until([&] {
        return daemon.standard_output() == "Error mkdir [/nowhere/at/all/.log] failed ret=-1\n";
    })) << daemon.standard_output();
    ASSERT_TRUE(daemon.serves());
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(StartSystemTest, ItTakesAsManyDescriptorsAsItMay) {
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit low = {64, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    daemon_process daemon;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_TRUE(daemon.serves());
    rlimit its_own = {};
    ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, nullptr, &its_own), 0);
    EXPECT_EQ(its_own.rlim_cur, before.rlim_max);
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(StartSystemTest, TheNullDeviceTakesThePlaceOfStandardStreamsThatItIsNotGiven) {
    for (const int first_closed : {0, 1, 2}) {
        const side_process daemon([first_closed] {
            for (int fd = first_closed; fd <= STDERR_FILENO; ++fd) {
                close(fd);
            }
            execl(VEXPROD_PROGRAM, VEXPROD_PROGRAM, nullptr);
        });
        ASSERT_TRUE(wait_until([&] {
            return call_service(kMain, "test", "", &reply_) == 0 && call_service(kMail, "test", "", &reply_) == 0;
        }));
        for (int fd = first_closed; fd <= STDERR_FILENO; ++fd) {
            const std::string name = "/proc/" + std::to_string(daemon.pid()) + "/fd/" + std::to_string(fd);
            EXPECT_EQ(std::filesystem::read_symlink(name), "/dev/null") << fd << " of " << first_closed;
        }
    }
}

TEST_F(StartSystemTest, WhileNothingHappensItsMainThreadSleeps) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const std::string ran = "/proc/" + std::to_string(daemon.pid()) + "/schedstat"; // the main thread's
    std::string last;
    int unchanged = 0;
    EXPECT_TRUE(wait_until([&] {
        const std::string now = read_file(ran);
        unchanged = now == last ? unchanged + 1 : 0;
        last = now;
        return unchanged == 50;
    })) << "it never comes to rest: "
        << last;
    EXPECT_EQ(daemon.stop(), 0);
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
