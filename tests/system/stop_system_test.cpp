// Stopping the real daemon at any instant, under load, and while others work against it.
#include "daemon_process.h"
#include "system_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int kHangSeconds = 30;

class StopSystemTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "runs in the simulated host only";
        (void)mkdir("/var/run/ks", 0755);
        (void)unlink(kDaemonLog);
        // The mail service is left to process exit, where one of its request threads may have ended without having been
        // joined yet: to the thread sanitizer that is a leak.
        const char* options = getenv("TSAN_OPTIONS");
        ::setenv("TSAN_OPTIONS", (std::string(options != nullptr ? options : "") + ":report_thread_leaks=0").c_str(),
                 1);
    }
    static long runs() { return setting("VEXPROD_STOP_RUNS", kSanitized ? 50 : 500); }
    static bool queues_are_gone() { return !queue_exists(kNotifyQueue) && !queue_exists(kEventQueue); }
    static void remove_queues() {
        for (const int key : {kNotifyQueue, kEventQueue}) {
            (void)msgctl(msgget(key, 0), IPC_RMID, nullptr);
        }
    }
};

// Processes that call both services, and some that post, again and again until they are killed.
std::vector<side_process> make_clients(int count) {
    std::vector<side_process> clients;
    clients.reserve(static_cast<size_t>(count));
    for (int client = 0; client < count; ++client) {
        clients.emplace_back([client] {
            std::string reply;
            for (unsigned i = 0;; ++i) {
                unsigned code = 0;
                if (client % 4 == 3) {
                    const host_record record = host_record::event(1, "u", "c");
                    const int sent = msgsnd(msgget(kEventQueue, 0), record.data(), record.body_size(), IPC_NOWAIT);
                    code = sent == 0 ? 0 : 2;
                } else if (client % 4 == 2) {
                    code = call_service(kMain, "exec_cli", R"({"command":["/bin/true"]})", &reply);
                } else {
                    code = call_service(client % 2 == 0 ? kMain : kMail, "test", "", &reply);
                }
                if (code != 0) {
                    std::this_thread::sleep_for(milliseconds(1)); // no daemon at the moment
                }
            }
        });
    }
    return clients;
}

TEST_F(StopSystemTest, EveryStartStopRunEndsWithStatus0AndRemovesTheQueues) {
    long good = 0;
    for (long run = 0; run < runs(); ++run) {
        daemon_process daemon({"-t"});
        const int status = daemon.wait(kHangSeconds);
        ASSERT_EQ(status, 0) << "run " << run << "\n" << daemon.standard_error() << read_file(kDaemonLog);
        ASSERT_TRUE(queues_are_gone()) << run;
        ++good;
    }
    printf("start-stop runs with status 0: %ld\n", good);
}

// The outcome of starts that are each ended by one signal after a random time.
struct outcomes {
    long before_handlers = 0; // the default action, with no sign of the handlers in the log
    long during_start = 0;    // status 0; stopped before both services' threads had said that they start
    long while_serving = 0;   // status 0
};

enum class counted_from { start, first_log_line }; // the handlers are installed soon after the first line

void run_and_signal(long count, counted_from origin, milliseconds longest, unsigned seed, outcomes* ret) {
    std::mt19937 random(seed);
    for (long run = 0; run < count; ++run) {
        (void)unlink(kDaemonLog);
        const int signal = random() % 2 == 0 ? SIGTERM : SIGINT;
        const std::chrono::microseconds delay(random() % (static_cast<unsigned>(longest.count()) * 1000 + 1));
        daemon_process daemon;
        while (origin == counted_from::first_log_line && !file_exists(kDaemonLog)) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(delay);
        const bool started =
            count_of(read_file(kDaemonLog), "] ks_start.") + count_of(read_file(kDaemonLog), "] ks_send_mail_start.") ==
            2;
        kill(daemon.pid(), signal);
        const int status = daemon.wait(kHangSeconds);
        const std::string log = read_file(kDaemonLog);
        const std::string story = "run " + std::to_string(run) + ", signal " + std::to_string(signal) + " after " +
                                  std::to_string(delay.count()) + " us, status " + std::to_string(status) + "\n" +
                                  daemon.standard_error() + log;
        if (status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == signal) {
            ASSERT_EQ(log.find("sock_name"), std::string::npos) << "the handlers were installed: " << story;
            ++ret->before_handlers;
            continue;
        }
        ASSERT_EQ(status, 0) << story;
        ASSERT_NE(log.find("] is_terminate"), std::string::npos) << story;
        if (count_of(log, "start, Server:") == 1) {
            ASSERT_EQ(msgget(kNotifyQueue, 0), -1) << story;
            ASSERT_EQ(msgget(kEventQueue, 0), -1) << story;
        }
        ++(started ? ret->while_serving : ret->during_start);
    }
}

void report(const char* what, const outcomes& result) {
    printf("%s: %ld stopped while starting, %ld while serving, all with status 0; %ld ended by the signal before the "
           "handlers were installed\n",
           what, result.during_start, result.while_serving, result.before_handlers);
}

// A start takes a few milliseconds, many times that under a sanitizer: most of this window is serving, so that all
// stages are hit; the second test's is nearly all start-up.
long window_ms() {
    return setting("VEXPROD_STOP_WINDOW_MS", kSanitized ? 400 : 50);
}

TEST_F(StopSystemTest, ASignalAtAnyInstantEndsTheDaemonInOrder) {
    const auto seed = static_cast<unsigned>(setting("VEXPROD_STOP_SEED", 1));
    outcomes quiet;
    run_and_signal(runs() - runs() / 2, counted_from::start, milliseconds(window_ms()), seed, &quiet);
    report("without load", quiet);
    outcomes loaded;
    if (!HasFailure()) {
        const std::vector<side_process> clients = make_clients(8);
        run_and_signal(runs() / 2, counted_from::start, milliseconds(window_ms()), seed + 1, &loaded);
        report("under load", loaded);
    }
    EXPECT_GT(quiet.during_start + quiet.while_serving + loaded.during_start + loaded.while_serving, 0);
}

TEST_F(StopSystemTest, ASignalDuringStartUpEndsTheDaemonInOrder) {
    const auto seed = static_cast<unsigned>(setting("VEXPROD_STOP_SEED", 1));
    outcomes result;
    run_and_signal(runs(), counted_from::first_log_line, milliseconds(window_ms() / 50), seed + 2, &result);
    // A busy machine may have let all of them come too late.
    for (unsigned more = 0; result.during_start == 0 && more < 40 && !HasFailure(); ++more) {
        run_and_signal(runs() / 10, counted_from::first_log_line, milliseconds(0), seed + 3 + more, &result);
    }
    report("during start-up", result);
    EXPECT_GT(result.during_start, 0);
}

TEST_F(StopSystemTest, ManySignalsAtOnceAreOneStop) {
    for (long run = 0; run < runs() / 10; ++run) {
        daemon_process daemon;
        ASSERT_TRUE(daemon.serves());
        const side_process storm([pid = daemon.pid()] {
            while (kill(pid, SIGTERM) == 0 && kill(pid, SIGINT) == 0) {
            }
        });
        ASSERT_EQ(daemon.wait(kHangSeconds), 0) << run;
        ASSERT_TRUE(queues_are_gone());
    }
}

TEST_F(StopSystemTest, EndsCleanlyWhileMailWorkersStillRunRequests) {
    std::vector<side_process> clients;
    clients.reserve(8);
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back([] {
            std::string reply;
            for (;;) {
                if (call_service(kMail, "test", "", &reply) != 0) {
                    std::this_thread::sleep_for(milliseconds(1));
                }
            }
        });
    }
    for (long run = 0; run < runs() / 5; ++run) {
        daemon_process daemon;
        ASSERT_TRUE(daemon.serves());
        const int status = daemon.stop();
        ASSERT_EQ(status, 0) << run << daemon.standard_error();
        ASSERT_EQ(daemon.standard_error(), "") << run;
    }
}

TEST_F(StopSystemTest, EndsCleanlyWhileItsQueuesAreFull) {
    std::vector<side_process> producers;
    for (const int key : {kNotifyQueue, kEventQueue}) {
        producers.emplace_back([key] {
            const host_record record =
                key == kNotifyQueue ? host_record::notification(1, 1, 1, "x") : host_record::event(1, "u", "c");
            for (;;) {
                (void)msgsnd(msgget(key, 0), record.data(), record.body_size(), 0); // waits for room
            }
        });
    }
    for (long run = 0; run < runs() / 20; ++run) {
        daemon_process daemon;
        ASSERT_TRUE(daemon.serves());
        const auto begin = steady_clock::now();
        ASSERT_EQ(daemon.stop(), 0) << run;
        EXPECT_LT(steady_clock::now() - begin, seconds(6));
        ASSERT_TRUE(queues_are_gone());
    }
}

TEST_F(StopSystemTest, EndsCleanlyWhileSomebodyElseRemovesItsQueues) {
    const side_process remover([] {
        for (;;) {
            remove_queues();
        }
    });
    for (long run = 0; run < runs() / 10; ++run) {
        daemon_process daemon;
        ASSERT_TRUE(daemon.serves());
        ASSERT_EQ(daemon.stop(), 0) << run;
        ASSERT_TRUE(queues_are_gone());
    }
}

TEST_F(StopSystemTest, StopsAlsoWhenItWasStartedWithTheSignalsBlocked) {
    sigset_t both;
    sigset_t before;
    sigemptyset(&both);
    sigaddset(&both, SIGTERM);
    sigaddset(&both, SIGINT);
    sigprocmask(SIG_BLOCK, &both, &before);
    daemon_process daemon;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    ASSERT_TRUE(daemon.serves());
    EXPECT_EQ(daemon.stop(), 0);
}

TEST_F(StopSystemTest, InTheBackgroundItStopsInOrderToo) {
    daemon_process foreground({"-d"});
    EXPECT_EQ(foreground.wait(), 0);
    ASSERT_TRUE(foreground.serves());
    const std::string log = read_file(kDaemonLog);
    const size_t at = log.rfind('\n', log.find("] ks_start.")) + 1;
    const pid_t pid = static_cast<pid_t>(std::stol(log.substr(at + 1)));
    ASSERT_TRUE(queue_exists(kNotifyQueue));
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(wait_until([] { return queues_are_gone(); }));
    EXPECT_TRUE(wait_until([&] { return read_file("/proc/" + std::to_string(pid) + "/comm").empty(); }));
    EXPECT_NE(read_file(kDaemonLog).find("] is_terminate"), std::string::npos);
}

} // namespace
