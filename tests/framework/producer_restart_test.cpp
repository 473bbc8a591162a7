// The producer's restarts of dead consumers.
#include "framework_support.h"
#include "kservice.h"
#include "producer_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using support::accepted_caller;
using support::eventually;
using support::gate;
using support::held;
using support::held_request;
using support::hold;
using support::make_record;
using support::raw_caller;
using support::server;
using support::service;

// echo(), and notes the process in `server`.
int tell(const char* command, ks_io* io, int fd) {
    *server = getpid();
    return support::echo(command, io, fd);
}

// What the calls of one test say to standard error, in this process and its children.
class captured_stderr {
public:
    captured_stderr() : saved_(fcntl(2, F_DUPFD_CLOEXEC, 300)), file_(support::memory_file()) { dup2(file_.get(), 2); }
    ~captured_stderr() { dup2(saved_.get(), 2); }
    captured_stderr(const captured_stderr&) = delete;
    captured_stderr& operator=(const captured_stderr&) = delete;
    std::string text() const {
        char bytes[4096];
        const ssize_t got = pread(file_.get(), bytes, sizeof(bytes), 0);
        return {bytes, got < 0 ? 0 : (size_t)got};
    }

private:
    support::descriptor saved_;
    support::descriptor file_;
};

// Whether the service has hung up, perhaps after it had invited the caller.
bool dropped(const raw_caller& caller) {
    const auto what = caller.receive();
    return !what || (*what == make_record(7) && caller.hung_up());
}

void kill_and_await_death(pid_t pid, int signum) {
    ASSERT_EQ(kill(pid, signum), 0);
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, (id_t)pid, &info, WEXITED | WNOWAIT), 0); // leaves the status to the producer
}

TEST(ProducerRestartTest, KilledConsumerIsReportedAndStartedAgain) {
    captured_stderr said;
    const service one(3, 1, tell);
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    const pid_t old = *server;
    kill_and_await_death(old, SIGKILL);
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_EQ(reply, "c||none");
    EXPECT_NE(*server, old);
    // The name is cut nowhere: it is short.
    EXPECT_EQ(said.text(), std::string("[KService] [WARN] [") + one.name() +
                               "] consumer-worker[0].pid=" + std::to_string(old) + " WIFSIGNALED=9, restart it.\n");
}

// The program has asked the kernel to keep no status of its children.
TEST(ProducerRestartTest, ConsumerWithoutAStatusIsReportedAsExitedAndStartedAgain) {
    captured_stderr said;
    (void)signal(SIGCHLD, SIG_IGN);
    {
        const service one(3, 1, tell);
        std::string reply;
        ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
        const pid_t old = *server;
        ASSERT_EQ(kill(old, SIGKILL), 0);
        ASSERT_TRUE(eventually([old] { return kill(old, 0) != 0; }));
        ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
        EXPECT_NE(*server, old);
        EXPECT_THAT(said.text(), testing::EndsWith(".pid=" + std::to_string(old) + " WIFEXITED=0, restart it.\n"));
    }
    (void)signal(SIGCHLD, SIG_DFL);
}

int leave(const char*, ks_io*, int) {
    *server = getpid();
    _exit(7);
}

TEST(ProducerRestartTest, ExitedConsumerIsReportedWithItsStatus) {
    captured_stderr said;
    const service one(2, 2, leave);
    pid_t old = 0;
    {
        const raw_caller caller(one.path());
        const support::descriptor file = support::memory_file();
        ASSERT_TRUE(caller.invited());
        ASSERT_TRUE(caller.send(make_record(8)) && caller.send_fds({file.get()}));
        EXPECT_TRUE(caller.hung_up());
        old = *server;
    }
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, (id_t)old, &info, WEXITED | WNOWAIT), 0);
    // The next dispatch goes to the other worker; the one after that comes round to this one.
    for (int i = 0; i < 2; ++i) {
        const raw_caller caller(one.path());
        ASSERT_TRUE(caller.invited());
    }
    EXPECT_EQ(said.text(), std::string("[KService] [WARN] [") + one.name() +
                               "] consumer-worker[0].pid=" + std::to_string(old) + " WIFEXITED=7, restart it.\n");
}

TEST(ProducerRestartTest, RestartedConsumerRunsTheInitCallbackAgain) {
    const support::shared<std::atomic<int>> count;
    captured_stderr said;
    const service one(3, 1, tell, [&](ks_handle* handle) {
        ks_worker_init(
            handle, [](void* argument) { ++*static_cast<std::atomic<int>*>(argument); }, &*count);
    });
    std::string reply;
    for (int i = 1; i <= 5; ++i) {
        ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
        EXPECT_EQ(*count, i);
        kill_and_await_death(*server, SIGKILL);
    }
}

TEST(ProducerRestartTest, RestartLeavesNoDescriptorsBehind) {
    captured_stderr said;
    const service one(3, 2, tell);
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    const auto before = support::settled_descriptors();
    for (int i = 0; i < 20; ++i) {
        kill_and_await_death(*server, SIGKILL);
        ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
        ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    }
    EXPECT_TRUE(eventually([&] { return support::open_descriptors().size() == before; }));
}

void wait_at_the_gate(void* gate) {
    static_cast<const support::gate*>(gate)->pass();
}

// The dispatch that its own readiness causes restarts the dead consumer, and hands over and hangs up at once: the new
// consumer, which has not begun yet, is not what ends the connection. What was said is a whole request.
TEST(ProducerRestartTest, WaitingCallerWhoseSpeechCausedTheHandOverIsShutDown) {
    captured_stderr said;
    gate here;
    held = &here;
    gate beginning;
    const service one(3, 1, hold, [&](ks_handle* handle) { ks_worker_init(handle, wait_at_the_gate, &beginning); });
    beginning.open();
    ASSERT_TRUE(beginning.await());
    const size_t sockets = support::open_sockets();
    const auto before = support::settled_descriptors();
    {
        held_request busy(one.path());
        const auto waiting = accepted_caller(one.path(), sockets + 3); // the other caller's is with the consumer
        kill_and_await_death(*server, SIGKILL);
        EXPECT_TRUE(busy.caller().hung_up());
        ASSERT_TRUE(waiting->send(make_record(8)));
        EXPECT_TRUE(waiting->hung_up());
        EXPECT_TRUE(beginning.await());
        EXPECT_TRUE(eventually([sockets] { return support::open_sockets() == sockets + 2; }))
            << "closed before the echo";
        beginning.open();
    }
    here.open();
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_TRUE(eventually([&] { return support::open_descriptors().size() == before; }));
    EXPECT_THAT(said.text(), testing::HasSubstr(" WIFSIGNALED=9, restart it.\n"));
}

// Two consumers that have died with a request each, which nobody has noticed yet, and two callers that wait.
struct two_dead_consumers {
    two_dead_consumers() {
        kill_and_await_death(first_server, SIGKILL);
        kill_and_await_death(second_server, SIGKILL);
    }

    gate here;
    gate* const held_here = held = &here; // before there is a request
    service one{3, 2, hold};
    size_t sockets = support::open_sockets();
    held_request first{one.path()};
    pid_t first_server = *server;
    held_request second{one.path()};
    pid_t second_server = *server;
    std::unique_ptr<raw_caller> third = accepted_caller(one.path(), sockets + 4); // the others' are with the consumers
    std::unique_ptr<raw_caller> fourth = accepted_caller(one.path(), sockets + 6);
};

// Dead consumers are noticed by the next event only. When that comes, all who wait and can be served are, although it
// was one event: here a newcomer, and two that waited.
TEST(ProducerRestartTest, OneEventHandsOverToAllThatAreFree) {
    const captured_stderr said;
    const two_dead_consumers now;
    const raw_caller newcomer(now.one.path());
    ASSERT_TRUE(now.third->invited());
    // Its worker has work, so that nothing else happens that would be an event, and it need not give way.
    const support::descriptor file = support::memory_file();
    ASSERT_TRUE(now.third->send(make_record(8, 0, "c")) && now.third->send_fds({file.get()}) && now.here.await());
    EXPECT_TRUE(now.fourth->invited());
    now.here.open();
    EXPECT_TRUE(newcomer.invited());
}

// The same when the event is what the second of those who wait has said.
TEST(ProducerRestartTest, CallerThatSpokeIsHandedOverBesideTheOneBeforeIt) {
    const captured_stderr said;
    const two_dead_consumers now;
    ASSERT_TRUE(now.fourth->send(make_record(8)));
    EXPECT_TRUE(now.third->invited());
    EXPECT_TRUE(dropped(*now.fourth)); // the new consumer may be quicker than the shut-down
    now.third->close();
    EXPECT_TRUE(raw_caller(now.one.path()).invited());
}

// A descriptor that somebody else opens between the early shut-down and the echo must not be the one that is closed.
TEST(ProducerRestartTest, EarlyShutDownNeverClosesSomebodyElsesDescriptor) {
    captured_stderr said;
    gate here;
    held = &here;
    const service one(3, 1, hold);
    const size_t sockets = support::open_sockets();
    std::atomic<bool> done = false;
    std::atomic<int> stolen = 0;
    std::thread opener([&] {
        while (!done) {
            const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            stolen += close(fd) != 0;
        }
    });
    for (int i = 0; i < 30; ++i) {
        held_request busy(one.path());
        const auto waiting = accepted_caller(one.path(), sockets + 3); // the other caller's is with the consumer
        kill_and_await_death(*server, SIGKILL);
        ASSERT_TRUE(waiting->send_bytes("hello", 5));
        EXPECT_TRUE(dropped(*waiting)); // the new consumer may be quicker than the shut-down
    }
    done = true;
    opener.join();
    EXPECT_EQ(stolen, 0);
}

// A program forks for reasons of its own and the child holds copies of all links. When it goes, the link that a restart
// replaced hangs up for good; the producer must not take that for its present link.
TEST(ProducerRestartTest, CopiesOfAReplacedLinkInOtherProcessesDoNoHarm) {
    captured_stderr said;
    const service one(3, 1, tell);
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    const int consumer_end = one.handle()->worker[0].sockfd[0];
    const support::shared<std::atomic<int>> step;
    const pid_t bystander = fork();
    if (bystander == 0) {
        while (*step == 0) {
            usleep(1000);
        }
        close(consumer_end);
        *step = 2;
        for (;;) {
            pause();
        }
    }
    kill_and_await_death(*server, SIGKILL);
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    *step = 1;
    ASSERT_TRUE(eventually([&] { return *step == 2; }));
    for (int i = 0; i < 20 && !HasFailure(); ++i) {
        EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    }
    kill(bystander, SIGKILL);
    waitpid(bystander, nullptr, 0);
}

} // namespace
