// Crashes of the real daemon: in any of its threads, in two at once, in the report itself, and during a stop.
#include "daemon_process.h"
#include "displaced_files.h"
#include "library_stand_in.h"
#include "system_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kAccountLibrary = "/usr/lib/libhcore_NAS.so.0.0";

class CrashSystemTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "runs in the simulated host only";
        (void)unlink(kDaemonLog);
        (void)mkdir("/var/run/ks", 0755);
    }
    std::string reply_;
};

// The messages of the crash reports in the log.
std::vector<std::string> report() {
    std::vector<std::string> lines;
    std::istringstream log(read_file(kDaemonLog));
    const std::string mark = " [vexprod_debug_backtrace_dump][";
    for (std::string line; std::getline(log, line);) {
        if (const size_t at = line.find(mark); at != std::string::npos) {
            lines.push_back(line.substr(line.find(']', at + mark.size()) + 1));
        }
    }
    return lines;
}

// Whether the log holds one report, and that to its end.
bool is_one_whole_report(const std::vector<std::string>& lines) {
    const std::string separator = "==========================";
    return lines.size() > 3 && std::count(lines.begin(), lines.end(), separator) == 1 &&
           lines[lines.size() - 2] == separator && lines.back().ends_with("vexprod");
}

void expect_killed(int status) {
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(CrashSystemTest, ACrashSignalLeavesTheStackInTheLogAndKillsTheDaemon) {
    for (const int signal : {SIGSEGV, SIGABRT}) {
        (void)unlink(kDaemonLog);
        daemon_process daemon;
        ASSERT_TRUE(daemon.serves());
        const int status = daemon.stop(signal);
        ASSERT_TRUE(WIFSIGNALED(status)) << status;
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
        const std::string log = read_file(kDaemonLog);
        EXPECT_THAT(log, ContainsRegex(R"(\[vexprod_debug_backtrace_dump\]\[[0-9]+\] .*vexprod.*\[0x[0-9a-f]+\])"));
        EXPECT_THAT(log, testing::MatchesRegex(
                             ".*\\[vexprod_debug_backtrace_dump\\]\\[[0-9]+\\]==========================\n"
                             "\\[[0-9]{5,}\\] \\[.{20}\\] \\[vexprod_debug_backtrace_dump\\]\\[[0-9]+\\].*vexprod\n"));
        EXPECT_EQ(count_of(log, "is_terminate"), 0U) << "no orderly stop";
        EXPECT_TRUE(queue_exists(kNotifyQueue));
        EXPECT_TRUE(queue_exists(kEventQueue));
        EXPECT_TRUE(file_exists(socket_path(kMain)));
    }
    // And all of that does not disturb the next start.
    daemon_process next;
    ASSERT_TRUE(next.serves());
    EXPECT_EQ(next.stop(), 0);
}

TEST_F(CrashSystemTest, ACrashInTheDumpStillEndsInTheKill) {
    for (const auto& [signal, faults] :
         {std::pair(SIGSEGV, false), std::pair(SIGABRT, false), std::pair(SIGSEGV, true), std::pair(SIGABRT, true)}) {
        const preloaded broken(BROKEN_SYMBOLS, faults ? "BROKEN_SYMBOLS_FAULT" : "BROKEN_SYMBOLS_ABORT", "1");
        daemon_process daemon;
        ASSERT_TRUE(daemon.serves()) << daemon.standard_error();
        const int status = daemon.stop(signal);
        ASSERT_TRUE(WIFSIGNALED(status)) << status;
        EXPECT_EQ(WTERMSIG(status), SIGKILL) << daemon.standard_error();
    }
}

// The thread of the one request that has a child. The mail service's are in nobody's way: a stop waits for none of
// them.
pid_t request_thread(const daemon_process& daemon) {
    const auto threads = threads_in(daemon.pid(), SYS_wait4);
    EXPECT_EQ(threads.size(), 1U);
    return threads.empty() ? -1 : threads[0];
}

TEST_F(CrashSystemTest, ACrashInAHandlerIsReportedWithTheInnermostFrameFirst) {
    library_stand_in accounts(kAccountLibrary);
    accounts.replace_by(BROKEN_ACCOUNTS);
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    EXPECT_EQ(call_service(kMain, "get_all_users", "", &reply_), 5U) << "the caller is told by the connection's end";
    expect_killed(daemon.wait());
    const auto lines = report();
    ASSERT_TRUE(is_one_whole_report(lines)) << read_file(kDaemonLog);
    const auto fault = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("(Get_Local_User_List_V2+0") != std::string::npos;
    });
    ASSERT_NE(fault, lines.end()) << read_file(kDaemonLog);
    if (!kSanitized) { // whose library takes the call in between
        EXPECT_THAT(lines.front(), HasSubstr("vexprod(")) << "the report's own frame";
    }
    EXPECT_THAT(*(fault + 1), HasSubstr("vexprod(")) << "the handler that called the library";
    EXPECT_THAT(lines[lines.size() - 3], HasSubstr("/libc.so.6(")) << "the thread's first frame";
}

TEST_F(CrashSystemTest, ACrashInARelayIsReported) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    ASSERT_TRUE(wait_until([&] { return threads_in(daemon.pid(), SYS_msgrcv).size() == 2; }));
    ASSERT_EQ(tgkill(daemon.pid(), threads_in(daemon.pid(), SYS_msgrcv)[0], SIGSEGV), 0);
    expect_killed(daemon.wait());
    EXPECT_TRUE(is_one_whole_report(report())) << read_file(kDaemonLog);
    EXPECT_THAT(read_file(kDaemonLog), HasSubstr("/libc.so.6(msgrcv+0x"));
    EXPECT_TRUE(queue_exists(kNotifyQueue));
    EXPECT_TRUE(queue_exists(kEventQueue));
}

TEST_F(CrashSystemTest, ASecondThreadThatCrashesLetsTheFirstOnesReportBeFinished) {
    fifo_gate gate;
    const preloaded slow(BROKEN_SYMBOLS, "BROKEN_SYMBOLS_GATE", gate.path());
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    ASSERT_TRUE(wait_until([&] { return threads_in(daemon.pid(), SYS_msgrcv).size() == 2; }));
    const auto relays = threads_in(daemon.pid(), SYS_msgrcv);
    ASSERT_EQ(tgkill(daemon.pid(), relays[0], SIGSEGV), 0);
    ASSERT_TRUE(gate.is_reached());
    for (const pid_t second : {relays[1], daemon.pid()}) { // the main thread as well
        ASSERT_EQ(tgkill(daemon.pid(), second, SIGABRT), 0);
        EXPECT_TRUE(wait_until([&] { return waits_in(daemon.pid(), second) == SYS_clock_nanosleep; })) << second;
    }
    gate.let_go();
    expect_killed(daemon.wait());
    EXPECT_TRUE(is_one_whole_report(report())) << read_file(kDaemonLog);
}

TEST_F(CrashSystemTest, AReportThatGetsStuckIsEndedAfterTenSeconds) {
    fifo_gate gate;
    const preloaded slow(BROKEN_SYMBOLS, "BROKEN_SYMBOLS_GATE", gate.path());
    sigset_t alarm_signal; // whatever the daemon's starter did with it
    sigset_t before;
    sigemptyset(&alarm_signal);
    sigaddset(&alarm_signal, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm_signal, &before);
    daemon_process daemon;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    ASSERT_TRUE(daemon.serves());
    const auto begin = steady_clock::now();
    ASSERT_EQ(kill(daemon.pid(), SIGSEGV), 0);
    ASSERT_TRUE(gate.is_reached());
    EXPECT_LE(std::stol(read_file(gate.path() + ".alarm")), 10000) << "milliseconds left";
    expect_killed(daemon.wait(60));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(9900));
    EXPECT_FALSE(is_one_whole_report(report()));
}

TEST_F(CrashSystemTest, AStopDuringAReportWaitsForItAndTakesNothingDown) {
    fifo_gate gate;
    const preloaded slow(BROKEN_SYMBOLS, "BROKEN_SYMBOLS_GATE", gate.path());
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const waiting_mails mail(daemon.pid());
    ASSERT_EQ(tgkill(daemon.pid(), request_thread(daemon), SIGSEGV), 0);
    ASSERT_TRUE(gate.is_reached());
    ASSERT_EQ(kill(daemon.pid(), SIGTERM), 0);
    EXPECT_TRUE(wait_until([&] { return waits_in(daemon.pid(), daemon.pid()) == kPause; }))
        << "the main thread does not wait for the report";
    gate.let_go();
    expect_killed(daemon.wait());
    EXPECT_TRUE(is_one_whole_report(report())) << read_file(kDaemonLog);
    EXPECT_THAT(read_file(kDaemonLog), Not(HasSubstr("is_terminate")));
    EXPECT_TRUE(queue_exists(kNotifyQueue));
    EXPECT_TRUE(queue_exists(kEventQueue));
    EXPECT_TRUE(file_exists(socket_path(kMain)));
    EXPECT_TRUE(file_exists(socket_path(kMail)));
}

TEST_F(CrashSystemTest, TheEndOfAStopWaitsForAReportThatBeganMeanwhile) {
    fifo_gate gate;
    const preloaded slow(BROKEN_SYMBOLS, "BROKEN_SYMBOLS_GATE", gate.path());
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const waiting_mails mail(daemon.pid());
    const pid_t mail_thread = request_thread(daemon);
    const std::string main_socket = socket_path(kMain);
    fifo_gate request_gate; // a request of the main service, which the stop waits for
    std::thread client([&] {
        (void)call_service(kMain, "exec_cli", R"({"command":["/bin/cat",")" + request_gate.path() + R"("]})", &reply_,
                           60);
    });
    EXPECT_TRUE(request_gate.is_reached());
    EXPECT_EQ(kill(daemon.pid(), SIGTERM), 0);
    EXPECT_TRUE(wait_until([&] { return !file_exists(main_socket); })) << "the stop never began";
    EXPECT_EQ(tgkill(daemon.pid(), mail_thread, SIGSEGV), 0);
    EXPECT_TRUE(gate.is_reached());
    request_gate.let_go();
    client.join();
    EXPECT_TRUE(wait_until([&] { return waits_in(daemon.pid(), daemon.pid()) == kPause; }))
        << "the main thread does not wait for the report";
    EXPECT_THAT(read_file(kDaemonLog), HasSubstr("] is_terminate\n"));
    gate.let_go();
    expect_killed(daemon.wait());
    EXPECT_TRUE(is_one_whole_report(report())) << read_file(kDaemonLog);
}

// The daemon's main thread beyond its last step, held up there, and some other thread of the process that crashes.
class CrashAtExitTest : public CrashSystemTest {
protected:
    void stop_and_crash(const daemon_process& daemon) {
        ASSERT_EQ(kill(daemon.pid(), SIGTERM), 0);
        ASSERT_TRUE(exit_gate_.is_reached());
        const auto waiting = threads_in(daemon.pid(), kEpollWait);
        ASSERT_FALSE(waiting.empty()) << "the mail service goes on until the end";
        ASSERT_EQ(tgkill(daemon.pid(), waiting[0], SIGSEGV), 0);
        ASSERT_TRUE(wait_until([&] { return waits_in(daemon.pid(), waiting[0]) == SYS_clock_nanosleep; }));
    }
    fifo_gate exit_gate_;
};

TEST_F(CrashAtExitTest, ACrashOfAnotherThreadChangesNothingAnyMore) {
    const preloaded held_up(BROKEN_EXIT, "BROKEN_EXIT_GATE", exit_gate_.path());
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    ASSERT_NO_FATAL_FAILURE(stop_and_crash(daemon));
    exit_gate_.let_go();
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_TRUE(report().empty()) << read_file(kDaemonLog);
}

TEST_F(CrashAtExitTest, AnEndThatACrashedThreadMayHoldUpIsCutOffAfterTenSeconds) {
    const preloaded held_up(BROKEN_EXIT, "BROKEN_EXIT_GATE", exit_gate_.path());
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const auto begin = steady_clock::now();
    ASSERT_NO_FATAL_FAILURE(stop_and_crash(daemon));
    expect_killed(daemon.wait(60));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(9900));
}

TEST_F(CrashAtExitTest, ACrashOfTheMainThreadKillsAtOnce) {
    const preloaded broken(BROKEN_EXIT, "BROKEN_EXIT_FAULT", "1");
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    expect_killed(daemon.stop());
    EXPECT_THAT(read_file(kDaemonLog), HasSubstr("] is_terminate\n"));
}

TEST_F(CrashSystemTest, AStackThatIsUsedUpEndsInSigsegvWithoutAReport) {
    library_stand_in accounts(kAccountLibrary);
    accounts.replace_by(BROKEN_ACCOUNTS);
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    EXPECT_EQ(call_service(kMain, "get_all_groups", "", &reply_), 5U);
    const int status = daemon.wait();
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
    EXPECT_TRUE(report().empty()) << read_file(kDaemonLog);
}

// What the framework says of it goes to standard error, and so does not need the log.
TEST_F(CrashSystemTest, AServiceThatCannotBePublishedIsACrash) {
    const std::string paths[] = {socket_path(kMain), socket_path(kMail), "/var/run/ks"};
    for (const std::string& path : paths) {
        (void)unlink(kDaemonLog);
        std::filesystem::remove_all(path);
        write_file(path, "no socket\n");
        daemon_process daemon;
        expect_killed(daemon.wait());
        EXPECT_THAT(daemon.standard_error(), ContainsRegex("^\\[ABORT\\] @ks_producer_worker_init\\(\\) "));
        EXPECT_TRUE(is_one_whole_report(report())) << read_file(kDaemonLog);
        EXPECT_EQ(read_file(path), "no socket\n") << "somebody else's file";
        std::filesystem::remove(path);
    }
}

} // namespace
