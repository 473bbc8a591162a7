// The producer: the waiting list, turning callers away, hand-over, and the restart of dead consumers.
#include "framework_support.h"
#include "kservice.h"
#include "privileges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::echo;
using support::entry_of;
using support::eventually;
using support::gate;
using support::make_record;
using support::raw_caller;
using support::service;

gate* held = nullptr;
// The process that serves. The worker table says so too, but while the producer runs it is the producer's alone.
const support::shared<std::atomic<pid_t>> server;

int tell(const char* command, ks_io* io, int fd) {
    *server = getpid();
    return echo(command, io, fd);
}

int hold(const char*, ks_io* io, int) {
    *server = getpid();
    held->pass();
    support::answer(io, "done");
    return 0;
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

// A caller that has sent its request and whose answer is held back.
class held_request {
public:
    explicit held_request(const std::string& path) : caller_(path), file_(support::memory_file()) {
        EXPECT_TRUE(caller_.invited());
        EXPECT_TRUE(caller_.send(make_record(8, 0, "c")) && caller_.send_fds({file_.get()}));
        EXPECT_TRUE(held->await());
    }
    raw_caller& caller() { return caller_; }

private:
    raw_caller caller_;
    support::descriptor file_;
};

// Connects a caller for whom nobody is free, and waits until the producer, which is in this process, has accepted it:
// the process then has `sockets` sockets. Until the last hand-over's echo it has one more.
std::unique_ptr<raw_caller> accepted_caller(const std::string& path, size_t sockets) {
    EXPECT_TRUE(eventually([sockets] { return support::open_sockets() == sockets - 2; })) << support::open_sockets();
    auto caller = std::make_unique<raw_caller>(path);
    EXPECT_TRUE(eventually([sockets] { return support::open_sockets() == sockets; })) << support::open_sockets();
    return caller;
}

// Whether the service has hung up, perhaps after it had invited the caller.
bool dropped(const raw_caller& caller) {
    const auto what = caller.receive();
    return !what || (*what == make_record(7) && caller.hung_up());
}

bool silent(const raw_caller& caller) {
    pollfd watched = {caller.fd(), POLLIN, 0};
    return poll(&watched, 1, 0) == 0;
}

// Number of listed callers, seen from outside: the producer's list itself is not to be read while it runs.
void stays_waiting(const std::vector<std::unique_ptr<raw_caller>>& callers) {
    for (const auto& each : callers) {
        ASSERT_TRUE(silent(*each));
    }
}

TEST(ProducerTest, ThousandthWaitingCallerIsQueuedAndTheNextTurnedAway) {
    gate here;
    held = &here;
    const service one(5, 1, hold);
    held_request busy(one.path());
    std::vector<std::unique_ptr<raw_caller>> waiting;
    for (int i = 0; i < 1000; ++i) {
        waiting.push_back(std::make_unique<raw_caller>(one.path()));
        ASSERT_TRUE(waiting.back()->connected());
    }
    EXPECT_GT(waiting.back()->fd(), 1023);
    const raw_caller next(one.path());
    const auto what = next.receive();
    ASSERT_TRUE(what);
    EXPECT_EQ(*what, make_record(2));
    EXPECT_TRUE(next.hung_up());
    stays_waiting(waiting);
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 6U);

    // One gone makes room for one.
    const size_t before = support::settled_descriptors();
    waiting[500].reset();
    ASSERT_TRUE(eventually([before] { return support::open_descriptors().size() == before - 2; })) << "seen to be gone";
    auto late = std::make_unique<raw_caller>(one.path());
    const raw_caller too_late(one.path());
    EXPECT_EQ(too_late.receive(), make_record(2));
    EXPECT_TRUE(silent(*late));

    // They are served in the order of arrival, those with high numbers too.
    here.open();
    EXPECT_EQ(busy.caller().receive(), make_record(9));
    const support::descriptor file = support::memory_file();
    here.open(3);
    ASSERT_TRUE(waiting[0]->invited());
    EXPECT_TRUE(silent(*waiting[1]));
    EXPECT_TRUE(waiting[0]->request("c", file.get()));
    for (size_t i = 1; i < 999; ++i) {
        if (i != 500) {
            ASSERT_TRUE(waiting[i]->invited()) << i;
            waiting[i]->close();
        }
    }
    ASSERT_TRUE(waiting[999]->invited());
    EXPECT_TRUE(waiting[999]->request("c", file.get()));
    ASSERT_TRUE(late->invited());
    EXPECT_TRUE(late->request("c", file.get()));
}

// Connects as another user. The system call changes this thread's id alone.
std::unique_ptr<raw_caller> caller_as(uid_t user, const std::string& path) {
    EXPECT_EQ(syscall(SYS_setresuid, -1, user, -1), 0);
    auto caller = std::make_unique<raw_caller>(path);
    EXPECT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
    EXPECT_TRUE(caller->connected());
    return caller;
}

TEST(ProducerTest, AFullListGivesOtherUsersHalfOfIt) {
    SKIP_UNLESS(may_become_others(), "calls as other users, which takes the machine's root");
    const support::temp_dir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    gate here;
    held = &here;
    const service one("@" + dir.file("s"), 5, 1, hold);
    held_request busy(one.path());
    std::vector<std::unique_ptr<raw_caller>> waiting;
    for (int i = 0; i < 1000; ++i) {
        waiting.push_back(std::make_unique<raw_caller>(one.path()));
    }
    EXPECT_EQ(raw_caller(one.path()).receive(), make_record(2)) << "full for the user who fills it";

    std::vector<std::unique_ptr<raw_caller>> others;
    for (size_t i = 0; i < 500; ++i) { // two users, by turns
        others.push_back(caller_as(i % 3 == 0 ? 4321 : 1234, one.path()));
        const raw_caller& displaced = *waiting.back();
        ASSERT_EQ(displaced.receive(), make_record(2)) << "the newest makes room, " << i;
        ASSERT_TRUE(displaced.hung_up());
        waiting.pop_back();
    }
    EXPECT_EQ(caller_as(1234, one.path())->receive(), make_record(2)) << "half of the list stays the first user's";
    EXPECT_EQ(caller_as(4321, one.path())->receive(), make_record(2));
    EXPECT_EQ(raw_caller(one.path()).receive(), make_record(2));
    stays_waiting(waiting);
    stays_waiting(others);

    // Nobody's turn changes by it.
    here.open();
    EXPECT_EQ(busy.caller().receive(), make_record(9));
    for (const auto& each : waiting) {
        ASSERT_TRUE(each->invited());
        each->close();
    }
    const support::descriptor file = support::memory_file();
    here.open();
    ASSERT_TRUE(others[0]->invited());
    EXPECT_TRUE(others[0]->request("c", file.get()));
}

TEST(ProducerTest, PausedTurnsNewCallersAwayAndKeepsTheWaiting) {
    gate here;
    held = &here;
    const service one(5, 1, hold);
    const size_t sockets = support::open_sockets();
    held_request busy(one.path());
    const auto waiting = accepted_caller(one.path(), sockets + 4); // both ends of both connections
    (void)accepted_caller(one.path(), sockets + 6);                // once this one is accepted, that one has its place
    ks_pause(one.handle());
    for (int i = 0; i < 3; ++i) {
        const raw_caller refused(one.path());
        EXPECT_EQ(refused.receive(), make_record(4));
        EXPECT_TRUE(refused.hung_up());
    }
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 3U);
    here.open(2);
    EXPECT_EQ(busy.caller().receive(), make_record(9));
    EXPECT_EQ(waiting->receive(), make_record(7));
    const support::descriptor file = support::memory_file();
    EXPECT_TRUE(waiting->request("c", file.get()));
    ks_resume(one.handle());
    here.open();
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
}

int hold_if_asked(const char* command, ks_io* io, int fd) {
    return *command == 'h' ? hold(command, io, fd) : echo(command, io, fd);
}

// Whoever is free is found behind one who is not, at once and not with the next event.
TEST(ProducerTest, BusyConsumersAreSteppedOver) {
    gate here;
    held = &here;
    const service one(5, 3, hold_if_asked);
    const auto busy = [&](size_t index) { return entry_of(one.handle(), index).idle == 0; };
    std::vector<std::thread> callers;
    for (int i = 0; i < 2; ++i) {
        callers.emplace_back([&one] {
            std::string reply;
            EXPECT_EQ(support::call(one.name(), "hold", "", &reply), 0U);
        });
        EXPECT_TRUE(here.await());
    }
    EXPECT_TRUE(eventually([&] { return busy(0) && busy(1); }));
    for (int i = 0; i < 10 && !HasFailure(); ++i) { // the search begins behind the third one
        EXPECT_TRUE(eventually([&] { return !busy(2); }));
        std::string reply;
        EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    }
    here.open(2);
    for (auto& each : callers) {
        each.join();
    }
}

// One that has just answered may not have reported ready when the next caller comes, so the turns are not to the point.
TEST(ProducerTest, ConsumersTakeTurns) {
    static std::atomic<size_t> next = 0;
    static std::atomic<int> served[3] = {};
    next = 0; // the test may be repeated
    for (auto& each : served) {
        each = 0;
    }
    thread_local size_t mine = 3;
    const service one(5, 3, [](const char*, ks_io* io, int) {
        if (mine == 3) {
            mine = next++;
        }
        ++served[mine];
        support::answer(io, "");
        return 0;
    });
    for (int i = 0; i < 300; ++i) {
        std::string reply;
        ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    }
    EXPECT_EQ(next, 3U);
    for (const auto& each : served) {
        EXPECT_GE(each, 60) << "the first that is idle would always be the same";
    }
}

TEST(ProducerTest, TheSearchBeginsBehindTheConsumerThatWasChosenLast) {
    static std::array<std::unique_ptr<gate>, 3> gates;
    for (auto& each : gates) {
        each = std::make_unique<gate>();
    }
    const service one(5, 3, [](const char* command, ks_io* io, int) {
        gates[(size_t)(*command - '0')]->pass();
        support::answer(io, "");
        return 0;
    });
    const auto busy = [&](size_t index) { return entry_of(one.handle(), index).idle == 0; };
    const size_t sockets = support::open_sockets();
    const support::descriptor file = support::memory_file();
    std::vector<std::unique_ptr<raw_caller>> served;
    for (size_t i = 0; i < gates.size(); ++i) {
        served.push_back(std::make_unique<raw_caller>(one.path()));
        ASSERT_TRUE(served.back()->invited());
        ASSERT_TRUE(served.back()->send(make_record(8, 0, std::to_string(i))) && served.back()->send_fds({file.get()}));
        ASSERT_TRUE(gates[i]->await());
        ASSERT_TRUE(eventually([&] { return busy(i); })); // noted behind the hand-over
    }
    const auto next = accepted_caller(one.path(), sockets + 8); // both ends of each connection
    const auto last = accepted_caller(one.path(), sockets + 10);
    gates[1]->open();
    ASSERT_TRUE(next->invited());
    EXPECT_TRUE(silent(*last)) << "no other is free";
    last->close();
    ASSERT_TRUE(eventually([&] { return support::open_sockets() == sockets + 7; })); // and 1 has closed its first
    next->close();
    gates[0]->open();
    gates[2]->open();
    ASSERT_TRUE(eventually([&] { return !busy(0) && !busy(1) && !busy(2); }));
    const raw_caller late(one.path());
    ASSERT_TRUE(late.invited());
    EXPECT_TRUE(eventually([&] { return busy(2); })) << "1 was the last to be chosen";
    EXPECT_FALSE(busy(0) || busy(1));
}

TEST(ProducerTest, WaitingCallerThatHangsUpCostsNothing) {
    gate here;
    held = &here;
    const service one(5, 1, hold);
    held_request busy(one.path());
    const auto before = support::settled_descriptors();
    for (int i = 0; i < 300; ++i) {
        raw_caller gone(one.path());
        if (i % 3 == 1) {
            ASSERT_TRUE(gone.send_bytes("early", 5));
        } else if (i % 3 == 2) {
            gone.shut_write();
        }
    }
    EXPECT_TRUE(eventually([&] { return support::open_descriptors().size() == before; }));
    here.open(2);
    EXPECT_EQ(busy.caller().receive(), make_record(9));
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
}

// One that only says nothing more is no caller that has gone.
TEST(ProducerTest, WaitingCallerThatShutsItsWritingSideKeepsItsPlace) {
    gate here;
    held = &here;
    const service one(5, 1, hold);
    const size_t sockets = support::open_sockets();
    held_request busy(one.path());
    const auto half = accepted_caller(one.path(), sockets + 4);
    half->shut_write();
    const auto later = accepted_caller(one.path(), sockets + 6); // what the other one did has been seen before
    here.open();
    EXPECT_EQ(busy.caller().receive(), make_record(9));
    EXPECT_TRUE(half->invited());
    half->close();
    EXPECT_TRUE(later->invited());
}

TEST(ProducerTest, WaitingCallersAreHungUpOnWhenALinkDoes) {
    gate here;
    held = &here;
    const service one(5, 1, hold);
    const size_t sockets = support::open_sockets();
    held_request busy(one.path());
    const auto waiting = accepted_caller(one.path(), sockets + 4);
    ASSERT_EQ(shutdown(entry_of(one.handle(), 0).sockfd[0], SHUT_RDWR), 0);
    EXPECT_TRUE(waiting->hung_up());
    EXPECT_TRUE(eventually([&] { return !raw_caller(one.path()).connected(); })) << "the service has ended by itself";
    here.open();
    EXPECT_EQ(busy.caller().receive(), make_record(9)) << "the request in hand is served to its end";
}

TEST(ProducerTest, ListeningSocketThatHangsUpEndsTheService) {
    const service one(5, 1, echo);
    const int listening = entry_of(one.handle(), 1).sockfd[1];
    ASSERT_EQ(shutdown(listening, SHUT_RDWR), 0);
    EXPECT_TRUE(eventually([listening] { return fcntl(listening, F_GETFD) == -1; })) << "closed with the run's end";
    EXPECT_EQ(one.handle()->stopping, 0);
}

// KEPT. The number is put there as entry_of() looks.
TEST(ProducerTest, EntryWithSocketNumberZeroIsIgnored) {
    const service one(5, 1, echo);
    const support::descriptor memory(open("/proc/self/mem", O_RDWR | O_CLOEXEC));
    const auto place = (off_t)&one.handle()->worker[0].queue.sockfd;
    const int32_t number = entry_of(one.handle(), 0).queue.sockfd;
    const int32_t zero = 0;
    ASSERT_EQ(pwrite(memory.get(), &zero, sizeof(zero), place), (ssize_t)sizeof(zero));
    const support::descriptor file = support::memory_file("t");
    const raw_caller first(one.path());
    ASSERT_TRUE(first.invited());
    EXPECT_TRUE(first.request("c", file.get()));
    const raw_caller second(one.path()); // accepted after the link's events were ignored for the first time
    EXPECT_FALSE(second.receive(std::chrono::milliseconds(200)));
    EXPECT_EQ(entry_of(one.handle(), 0).idle, 0) << "its report has not been heard";
    ASSERT_EQ(pwrite(memory.get(), &number, sizeof(number), place), (ssize_t)sizeof(number));
    EXPECT_TRUE(second.invited());
}

TEST(ProducerTest, ReadyReportInTheProducersOwnNameIsIgnored) {
    const service one(5, 2, echo);
    const std::string_view index("\2\0\0\0\0\0\0\0", sizeof(size_t));
    const int link = entry_of(one.handle(), 0).sockfd[0];
    const auto report = make_record(1, 0, index);
    ASSERT_EQ(send(link, report.data(), report.size(), 0), (ssize_t)report.size());
    for (int i = 0; i < 2; ++i) { // the report comes first
        std::string reply;
        EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    }
    EXPECT_TRUE(eventually([&] { return entry_of(one.handle(), 0).idle == 1 && entry_of(one.handle(), 1).idle == 1; }));
    EXPECT_EQ(entry_of(one.handle(), 2).idle, 0);
}

// ---- Calls of the producer that the kernel lets fail

TEST(ProducerTest, OneHundredAndTwentyNineCallersCanWaitToBeAccepted) {
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            support::supervised_calls calls({SYS_accept4});
            const service one(5, 1, echo);
            const raw_caller first(one.path());
            sockaddr_storage address = {};
            socklen_t size = sizeof(address);
            bool good = first.invited() && // and so accepted
                        getpeername(first.fd(), reinterpret_cast<sockaddr*>(&address), &size) == 0;
            const gate here;
            calls.hold_next(here);
            std::vector<support::descriptor> callers;
            do {
                callers.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
            } while (connect(callers.back().get(), reinterpret_cast<sockaddr*>(&address), size) == 0);
            good = good && errno == EAGAIN && here.await();
            _exit(good && callers.size() == 130 ? 0 : 1); // the last one found no room
        },
        testing::ExitedWithCode(0), "");
}

TEST(ProducerTest, InterruptedWaitIsNoEnd) {
    static std::atomic<int> interruptions = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { ++interruptions; };
    sigaction(SIGUSR1, &action, nullptr);
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    ks_handle* handle = ks_create(name.c_str(), 4, 1, echo);
    std::atomic<pid_t> tid = 0;
    std::thread runner([&] {
        tid = gettid();
        ks_start(handle);
    });
    const auto serves = [&] {
        std::string reply;
        return support::call(name.c_str(), "c", "", &reply) == 0;
    };
    ASSERT_TRUE(eventually(serves));
    for (int i = 0; i < 20 && !HasFailure(); ++i) {
        const int before = interruptions;
        ASSERT_TRUE(eventually([&] { return support::is_asleep(tid); }));
        pthread_kill(runner.native_handle(), SIGUSR1);
        ASSERT_TRUE(eventually([&] { return interruptions > before; }));
        EXPECT_TRUE(serves());
    }
    ks_stop(handle);
    runner.join();
    ks_free(handle);
    (void)signal(SIGUSR1, SIG_DFL);
    support::restore_stdin();
}

TEST(ProducerTest, ReportThatCannotBeReadYetIsReadLater) {
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            support::supervised_calls calls({SYS_recvfrom});
            const service one(5, 1, echo);
            int failures = 0;
            for (const int error : {EINTR, EAGAIN, EINTR, EAGAIN}) {
                calls.fail_next(SYS_recvfrom, entry_of(one.handle(), 0).sockfd[1], error);
                std::string reply;
                failures += support::call(one.name(), "c", "", &reply) != 0;
                failures += !eventually([&] { return calls.done(); }); // the caller does not wait for the report
            }
            _exit(failures);
        },
        testing::ExitedWithCode(0), "");
}

// A caller that cannot be handed over is hung up on; the consumer serves the next one.
void hand_over_fails(unsigned mode, long number, int error) {
    support::end_within(std::chrono::seconds(60));
    support::supervised_calls calls({number});
    const service one(mode, 1, echo);
    const auto before = support::settled_descriptors();
    int failures = 0;
    for (int i = 0; i < 3; ++i) {
        calls.fail_next(number, entry_of(one.handle(), 0).sockfd[1], error);
        const raw_caller lost(one.path());
        failures += !lost.hung_up() || !calls.done();
        std::string reply;
        failures += support::call(one.name(), "c", "", &reply) != 0 || reply != "c||none";
    }
    failures += !eventually([&] { return support::open_descriptors().size() == before; });
    _exit(failures);
}

TEST(ProducerTest, CallerThatCannotBeAnnouncedToTheConsumerIsHungUpOn) {
    for (const unsigned mode : {3U, 5U}) {
        EXPECT_EXIT(hand_over_fails(mode, SYS_sendmmsg, EAGAIN), testing::ExitedWithCode(0), "") << mode;
    }
}

// The transfer is announced then, and the consumer waits for the descriptor.
TEST(ProducerTest, CallerWhoseDescriptorCannotBePassedIsHungUpOn) {
    const auto passes_none = [](unsigned mode) {
        support::end_within(std::chrono::seconds(60));
        support::limit_descriptors_in_flight();
        const service one(mode, 1, echo);
        const auto before = support::settled_descriptors();
        int failures = 0;
        for (int i = 0; i < 3; ++i) {
            {
                const support::no_descriptor_passed meanwhile;
                const raw_caller lost(one.path());
                failures += !lost.hung_up();
            }
            // What is in flight is counted for the user, with that of tests beside this one.
            failures += !eventually([&] {
                std::string reply;
                return support::call(one.name(), "c", "", &reply) == 0 && reply == "c||none";
            });
        }
        failures += !eventually([&] { return support::open_descriptors().size() == before; });
        _exit(failures);
    };
    for (const unsigned mode : {3U, 5U}) {
        EXPECT_EXIT(passes_none(mode), testing::ExitedWithCode(0), "") << mode;
    }
}

// A consumer that heard of a caller and will not get it must not wait for it, nor a stop for that consumer.
TEST(ProducerTest, ConsumerThatCannotBeToldOfALostCallerIsPartedWith) {
    const auto tells_nothing = [] {
        support::end_within(std::chrono::seconds(60));
        support::limit_descriptors_in_flight();
        bool hung_up = false;
        {
            const service one(5, 1, echo);
            const support::no_descriptor_passed from_here_on;
            support::fail_system_call(SYS_sendmsg, ENOBUFS);
            const raw_caller lost(one.path());
            hung_up = lost.hung_up();
        } // stopped
        _exit(hung_up ? 0 : 1);
    };
    EXPECT_EXIT(tells_nothing(), testing::ExitedWithCode(0), "");
}

int64_t cpu_while_idle() {
    const int64_t before = support::cpu_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // the length of what is measured, not a wait
    return support::cpu_ms() - before;
}

TEST(ProducerTest, CallersThatSpeakEarlyDoNotMakeItSpin) {
    gate here;
    held = &here;
    const service one(5, 1, hold);
    held_request busy(one.path());
    std::vector<std::unique_ptr<raw_caller>> early;
    for (int i = 0; i < 20; ++i) {
        early.push_back(std::make_unique<raw_caller>(one.path()));
        ASSERT_TRUE(early.back()->send_bytes("too early", 9));
    }
    const raw_caller half(one.path());
    half.shut_write();
    EXPECT_LT(cpu_while_idle(), 200);
    here.open(2);
    for (const auto& each : early) {
        EXPECT_EQ(each->receive(), make_record(7)) << "invited in its turn, then dropped for what it said";
        EXPECT_TRUE(each->hung_up());
    }
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
}

// What it costs to serve n callers must not grow with the number of those that wait and have spoken.
TEST(ProducerTest, CallersThatSpokeEarlyAreNotHeardAgainForEachRequest) {
    gate here;
    held = &here;
    const service one(5, 1, hold);
    held_request busy(one.path());
    std::vector<std::unique_ptr<raw_caller>> early;
    for (int i = 0; i < 990; ++i) {
        early.push_back(std::make_unique<raw_caller>(one.path()));
        ASSERT_TRUE(early.back()->send_bytes("too early", 9));
    }
    ASSERT_TRUE(eventually([] { return cpu_while_idle() < 100; }));
    rusage before = {};
    getrusage(RUSAGE_SELF, &before);
    const int64_t begin = support::cpu_ms();
    here.open();
    ASSERT_TRUE(early.back()->invited());
    ASSERT_TRUE(early.back()->hung_up());
    const int64_t used = support::cpu_ms() - begin;
    RecordProperty("cpu_ms", std::to_string(used));
    printf("990 early callers dropped in %lld ms of CPU time\n", (long long)used);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    EXPECT_LT(used, 1500);
#else
    EXPECT_LT(used, 250);
#endif
}

TEST(ProducerTest, LackOfDescriptorsDoesNotMakeItSpin) {
    const service one(5, 1, echo);
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    raw_caller ready_made(one.path()); // makes its socket and connects while that is possible
    ASSERT_TRUE(ready_made.invited());
    std::vector<support::descriptor> sockets;
    for (int i = 0; i < 5; ++i) {
        sockets.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = {3, before.rlim_max}; // 0, 1 and 2 are taken
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    for (const auto& each : sockets) {
        sockaddr_storage address = {};
        socklen_t size = sizeof(address);
        ASSERT_EQ(getpeername(ready_made.fd(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        ASSERT_EQ(connect(each.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    }
    const int64_t used = cpu_while_idle();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_LT(used, 200);
    ready_made.close();
    for (auto& each : sockets) {
        pollfd watched = {each.get(), POLLIN, 0};
        EXPECT_EQ(poll(&watched, 1, 30000), 1) << "accepted once there are descriptors again";
        each.reset();
    }
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
}

TEST(ProducerTest, LackThatIsNotTheProcesssOwnDoesNotMakeItSpin) {
    for (const int error : {ENFILE, ENOBUFS, ENOMEM}) {
        EXPECT_EXIT(
            {
                const service one(5, 1, echo);
                support::fail_system_call(SYS_accept4, error);
                const raw_caller caller(one.path());
                _exit(caller.connected() && cpu_while_idle() < 200 ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << error;
    }
}

TEST(ProducerTest, StopsWhileDescriptorsAreLacking) {
    service one(5, 1, echo);
    const raw_caller first(one.path());
    ASSERT_TRUE(first.invited());
    const support::descriptor other(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_storage address = {};
    socklen_t size = sizeof(address);
    ASSERT_EQ(getpeername(first.fd(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = {3, before.rlim_max}; // 0, 1 and 2 are taken
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    ASSERT_EQ(connect(other.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    (void)cpu_while_idle();
    ks_stop(one.handle());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    support::restore_stdin();
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
