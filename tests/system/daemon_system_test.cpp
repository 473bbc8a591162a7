// The real daemon, with its fixed paths, asked over its real sockets by another process.
#include "daemon_process.h"
#include "displaced_files.h"
#include "privileges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <thread>

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;

class DaemonSystemTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "runs in the simulated host only";
        (void)unlink(kDaemonLog);
    }
    std::string reply_;
};

std::string line_of(const std::string& text, const std::string& part) {
    const size_t at = text.find(part);
    if (at == std::string::npos) {
        return "";
    }
    const size_t begin = text.rfind('\n', at) + 1; // npos + 1 is 0
    return text.substr(begin, text.find('\n', at) - begin);
}

TEST_F(DaemonSystemTest, ServesBothServicesUntilSigterm) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    EXPECT_EQ(call_service(kMain, "test", "", &reply_), 0U);
    EXPECT_EQ(reply_, "{\"handler\":\"test_handler\",\"service\":\"VexHubServer-vexprod\"}\n");
    EXPECT_EQ(call_service(kMail, "test", "", &reply_), 0U);
    EXPECT_EQ(reply_,
              "{\"handler\":\"hos_test_sendmail_srv_handler\",\"service\":\"VexHubServer_send_mail-vexprod\"}\n");
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_EQ(call_service(kMain, "test", "", &reply_), 2U);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // with allocators of their own
long private_memory_kib(pid_t pid) {
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    return std::strtol(status.c_str() + status.find("RssAnon:") + strlen("RssAnon:"), nullptr, 10);
}

TEST_F(DaemonSystemTest, LargeRequestsLeaveNoMemoryBehind) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const std::string large(15UL * 1024 * 1024, 'x');
    const long before = private_memory_kib(daemon.pid());
    for (const std::string& request : {large, R"({"command":["/bin/true"],"more":")" + large + "\"}"}) {
        for (int i = 0; i < 4; ++i) { // each of the workers
            EXPECT_EQ(call_service(kMain, "exec_cli", request, &reply_), 0U);
        }
    }
    EXPECT_TRUE(wait_until([&] { return private_memory_kib(daemon.pid()) < before + 1024; }))
        << before << " KiB before, " << private_memory_kib(daemon.pid()) << " after";
}
#endif

TEST_F(DaemonSystemTest, SigintStopsItAsWell) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    EXPECT_EQ(daemon.stop(SIGINT), 0);
}

TEST_F(DaemonSystemTest, SigtermEndsTheIdleWaitAtOnce) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)); // the idle deadline is 10 seconds
}

TEST_F(DaemonSystemTest, LogsItsStartAndStopInTheFixedOrder) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    ASSERT_EQ(daemon.stop(), 0);
    const std::string log = read_file(kDaemonLog);
    const char* lines[] = {"] lyn-ks-vexprod start, Server:VexHubServer-vexprod.", "] sock_name:/var/run/ks/",
                           "] send_mail_sock_name:/var/run/ks/", "] is_terminate"};
    size_t from = 0;
    for (const char* line : lines) {
        const size_t at = log.find(line, from);
        ASSERT_NE(at, std::string::npos) << line << "\n" << log;
        from = at;
    }
    // The two threads that start last speak for themselves, in either order.
    for (const char* line : {"] ks_start.\n", "] ks_send_mail_start.\n"}) {
        const size_t at = log.find(line);
        ASSERT_NE(at, std::string::npos) << line << "\n" << log;
        EXPECT_EQ(log.rfind(line), at) << "once only\n" << log;
        EXPECT_GT(at, log.find("] send_mail_sock_name:")) << log;
        EXPECT_LT(at, log.find("] is_terminate")) << log;
    }
    EXPECT_THAT(line_of(log, "sock_name"),
                MatchesRegex(R"(\[[0-9]{5,}\] \[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} \] \[main\]\[[0-9]+\] )"
                             R"(sock_name:/var/run/ks/[0-9A-F]{1,8}\.sock\.)"));
    EXPECT_THAT(line_of(log, "send_mail_sock_name"), HasSubstr(".sock, KS_SEND_MAIL_SERVER_THREAD_NUM:5."));
    EXPECT_THAT(log, ContainsRegex(R"(\[pthread_ks_start\]\[[0-9]+\] ks_start\.)"));
    EXPECT_THAT(log, ContainsRegex(R"(\[pthread_ks_send_mail_start\]\[[0-9]+\] ks_send_mail_start\.)"));
    EXPECT_THAT(log, ContainsRegex(R"(\[free_all_obj\]\[[0-9]+\] is_terminate)"));
}

TEST_F(DaemonSystemTest, WithoutAnInstallPathItSaysSoAndExitsWith255) {
    displaced_files config;
    config.take_away("/etc/config/zpkg.conf");
    write_file("/etc/config/zpkg.conf", "[VexHubServer]\nOther = 1\n");
    daemon_process daemon;
    const int status = daemon.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
    EXPECT_THAT(daemon.standard_error(), MatchesRegex(R"(\[main\]\[[0-9]+\] get Install_Path fail\.)"));
}

TEST_F(DaemonSystemTest, ASecondInstanceIsRefusedWith255) {
    daemon_process first;
    ASSERT_TRUE(first.serves());
    daemon_process second;
    const int status = second.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
    EXPECT_THAT(read_file(kDaemonLog), ContainsRegex(R"(\[main\]\[[0-9]+\] warning: re-entry\.)"));
    EXPECT_EQ(call_service(kMain, "test", "", &reply_), 0U) << "the first is not disturbed";
    EXPECT_EQ(first.stop(), 0);
}

TEST_F(DaemonSystemTest, AStartStopRunEndsByItselfWithStatus0) {
    for (int i = 0; i < 20; ++i) {
        daemon_process daemon({"-t"});
        ASSERT_EQ(daemon.wait(), 0) << i;
    }
    const std::string log = read_file(kDaemonLog);
    EXPECT_THAT(log, HasSubstr("] ks_start."));
    EXPECT_THAT(log, HasSubstr("] ks_send_mail_start."));
    EXPECT_THAT(log, HasSubstr("] is_terminate"));
}

TEST_F(DaemonSystemTest, AnUnknownOptionIsNamedAndDoesNotStopTheStart) {
    daemon_process daemon({"-x"});
    ASSERT_TRUE(daemon.serves());
    EXPECT_EQ(daemon.standard_error(), "Illegal option:-x\n");
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(DaemonSystemTest, InTheBackgroundItLeavesTheTerminalAndTheFolder) {
    daemon_process daemon({"-d"});
    EXPECT_EQ(daemon.wait(), 0) << "the foreground process ends at once";
    ASSERT_TRUE(wait_until([&] { return call_service(kMain, "test", "", &reply_) == 0; }));
    // Its id stands in the log.
    const std::string log = read_file(kDaemonLog);
    const std::string line = line_of(log, "] ks_start.");
    ASSERT_FALSE(line.empty());
    const pid_t pid = static_cast<pid_t>(std::stol(line.substr(1)));
    const std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/cwd"), "/");
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/fd/0"), "/dev/null");
    kill(pid, SIGTERM);
    EXPECT_TRUE(wait_until([&] { return !file_exists(proc + "/cwd"); }));
    EXPECT_THAT(read_file(kDaemonLog), HasSubstr("] is_terminate"));
}

TEST_F(DaemonSystemTest, AnyLocalUserMayCall) {
    SKIP_UNLESS(may_become_others(), "calls as another user, which takes the machine's root");
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const pid_t pid = fork();
    if (pid == 0) {
        std::string reply;
        const bool dropped = setgid(65534) == 0 && setuid(65534) == 0;
        _exit(dropped && call_service(kMain, "test", "", &reply) == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(DaemonSystemTest, ManyClientsGetTheirOwnRepliesAndLeaveNothingBehind) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const size_t threads = daemon.settled("task");
    const size_t descriptors = daemon.settled("fd");
    std::atomic<int> wrong = 0;
    std::vector<std::thread> clients;
    for (int client = 0; client < 8; ++client) {
        clients.emplace_back([client, &wrong] {
            for (int i = 0; i < 50; ++i) {
                const std::string word = std::to_string(client) + "-" + std::to_string(i);
                std::string reply;
                const unsigned code =
                    call_service(kMain, "exec_cli", R"({"command":["/bin/echo",")" + word + R"("]})", &reply, 60);
                if (code != 0 || reply.find("\"result\":\"" + word + "\\n\"") == std::string::npos) {
                    ++wrong;
                }
                if (i % 10 == 0 && call_service(kMain, "exec_cli", "{", &reply, 60) != 0) {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& each : clients) {
        each.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(wait_until([&] { return daemon.count("fd") == descriptors && daemon.count("task") == threads; }))
        << daemon.count("fd") << " descriptors, before " << descriptors << "; " << daemon.count("task")
        << " threads, before " << threads;
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(DaemonSystemTest, StopsInOrderWhileClientsKeepCalling) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    std::atomic<bool> over = false;
    std::vector<std::thread> clients;
    for (int client = 0; client < 4; ++client) {
        clients.emplace_back([&over, client] {
            std::string reply;
            while (!over) {
                (void)call_service(client % 2 == 0 ? kMain : kMail, "test", "", &reply, 5);
            }
        });
    }
    EXPECT_EQ(daemon.stop(), 0);
    over = true;
    for (std::thread& each : clients) {
        each.join();
    }
}

} // namespace
