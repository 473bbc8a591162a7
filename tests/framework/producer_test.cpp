// The producer: the waiting list, turning callers away, and hand-over. Its restarts are in producer_restart_test.cpp.
#include "framework_support.h"
#include "kservice.h"
#include "privileges.h"
#include "producer_support.h"

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
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::accepted_caller;
using support::echo;
using support::entry_of;
using support::eventually;
using support::gate;
using support::held;
using support::held_request;
using support::hold;
using support::make_record;
using support::raw_caller;
using support::service;

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

} // namespace
