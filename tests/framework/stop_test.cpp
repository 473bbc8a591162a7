// The end of a service: asked for by several threads at once, by a signal handler at any moment, or by itself.
#include "framework_support.h"
#include "kservice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::echo;
using support::entry_of;
using support::eventually;
using support::service;

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}
bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

ks_handle* signalled = nullptr; // whom the handlers stop

TEST(ServiceStopTest, SeveralStopsAtOnceThenFree) {
    for (const unsigned mode : {2U, 3U, 4U, 5U}) {
        for (int round = 0; round < 20; ++round) {
            const support::temp_dir dir;
            const std::string name = "@" + dir.file("s");
            ks_handle* handle = ks_create(name.c_str(), mode, 2, echo);
            std::vector<std::thread> threads;
            std::atomic<bool> started = false;
            if ((mode & 1) != 0) {
                ks_start(handle);
            } else {
                threads.emplace_back([&] {
                    started = true;
                    ks_start(handle);
                });
                ASSERT_TRUE(eventually([&] { return started && exists(dir.file("s")); }));
            }
            for (int i = 0; i < 4; ++i) {
                threads.emplace_back([&] {
                    ks_stop(handle);
                    EXPECT_EQ(__atomic_load_n(&handle->worker, __ATOMIC_ACQUIRE), nullptr);
                });
            }
            for (auto& thread : threads) {
                thread.join();
            }
            ks_free(handle);
            support::restore_stdin();
        }
    }
}

TEST(ServiceStopTest, FreeOfARunningServiceWaitsForTheOtherThreadsStart) {
    for (const unsigned mode : {2U, 4U}) {
        for (int round = 0; round < 20; ++round) {
            const support::temp_dir dir;
            const std::string name = "@" + dir.file("s");
            ks_handle* handle = ks_create(name.c_str(), mode, 2, echo);
            std::thread runner([&] { ks_start(handle); });
            ASSERT_TRUE(eventually([&] { return exists(dir.file("s")); }));
            ks_free(handle); // without waiting for the thread
            runner.join();
            support::restore_stdin();
        }
    }
}

TEST(ServiceStopTest, StopWaitsForTheRequestInHand) {
    static support::gate* busy = nullptr;
    support::gate here;
    busy = &here;
    service one(5, 1, [](const char*, ks_io* io, int) {
        busy->pass();
        support::answer(io, "late");
        return 0;
    });
    std::thread caller([&] {
        std::string reply;
        EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
        EXPECT_EQ(reply, "late");
    });
    ASSERT_TRUE(here.await());
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        ks_stop(one.handle());
        stopped = true;
    });
    ASSERT_TRUE(eventually([&] { return !exists(one.path()); }));
    EXPECT_FALSE(stopped);
    here.open();
    stopper.join();
    caller.join();
    support::restore_stdin();
}

void wait_at_the_gate(void* gate) {
    static_cast<const support::gate*>(gate)->pass();
}

// Handed over to a consumer that has not begun yet, and whose echo comes too late for the producer.
TEST(ServiceStopTest, CallerInTransitIsHungUpOnAndNotKept) {
    const auto before = support::open_descriptors();
    support::gate here;
    service one(5, 1, echo, [&](ks_handle* handle) { ks_worker_init(handle, wait_at_the_gate, &here); });
    ASSERT_TRUE(here.await());
    support::raw_caller caller(one.path());
    const int link = entry_of(one.handle(), 0).sockfd[0];
    const auto announced = [link] {
        int bytes = 0;
        return ioctl(link, FIONREAD, &bytes) == 0 && bytes == 260; // the directive, and the byte with the descriptor
    };
    ASSERT_TRUE(eventually(announced));
    std::thread stopper([&] { one.stop(); });
    EXPECT_TRUE(eventually([&] { return !exists(one.path()); }));
    here.open();
    stopper.join();
    (void)caller.receive(); // perhaps the invitation
    EXPECT_TRUE(caller.hung_up());
    caller.close();
    EXPECT_EQ(support::open_descriptors(), before);
}

TEST(ServiceStopTest, StopDoesNotWaitForASilentInvitedCaller) {
    service one(5, 1, echo);
    const support::raw_caller silent(one.path());
    ASSERT_TRUE(silent.invited());
    const auto begin = std::chrono::steady_clock::now();
    one.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
    EXPECT_TRUE(silent.hung_up());
}

volatile sig_atomic_t inside_start = 0;
std::atomic<int> stops_returned = 0;
void stop_it(int) {
    if (inside_start != 0) {
        ks_stop(signalled);
    }
}

// The usual way to end a foreground service, on the very thread that is inside ks_start(), at any moment of it.
TEST(ServiceStopTest, StopFromASignalHandlerAtAnyMomentOfStart) {
    for (const unsigned mode : {4U, 5U}) {
        for (int round = 0; round < 150; ++round) {
            const support::temp_dir dir;
            const std::string name = "@" + dir.file("s");
            signalled = ks_create(name.c_str(), mode, 2, echo);
            struct sigaction action = {};
            action.sa_handler = stop_it;
            sigaction(SIGUSR1, &action, nullptr);
            const pthread_t target = pthread_self();
            std::atomic<bool> returned = false;
            std::thread sender([target, round, &returned] {
                const auto when = std::chrono::steady_clock::now() + std::chrono::microseconds(round * 4);
                while (std::chrono::steady_clock::now() < when) {
                }
                do { // a signal that came before the start has stopped nothing
                    pthread_kill(target, SIGUSR1);
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                } while (!returned);
            });
            inside_start = 1;
            ks_start(signalled);
            inside_start = 0;
            returned = true;
            sender.join();
            ks_stop(signalled);
            EXPECT_EQ(signalled->worker, nullptr);
            EXPECT_FALSE(exists(dir.file("s"))) << "round " << round;
            ks_free(signalled);
            (void)signal(SIGUSR1, SIG_DFL);
            support::restore_stdin();
        }
    }
}

// A signal to the process goes to whatever thread the kernel chooses: a producer that still forks its workers, a
// consumer.
TEST(ServiceStopTest, StopFromASignalToTheProcessWhicheverThreadTakesIt) {
    struct sigaction action = {};
    action.sa_handler = stop_it;
    sigaction(SIGUSR1, &action, nullptr);
    for (const unsigned mode : {2U, 3U, 4U, 5U}) {
        for (int round = 0; round < 30; ++round) {
            const support::temp_dir dir;
            const std::string name = "@" + dir.file("s");
            signalled = ks_create(name.c_str(), mode, 16, echo);
            std::atomic<bool> over = false;
            std::thread sender([round, &over] {
                sigset_t own;
                sigemptyset(&own);
                sigaddset(&own, SIGUSR1);
                pthread_sigmask(SIG_BLOCK, &own, nullptr);
                std::this_thread::sleep_for(std::chrono::microseconds(round * 100));
                do { // seldom enough for a fork, which a signal makes begin anew
                    kill(getpid(), SIGUSR1);
                    std::this_thread::sleep_for(std::chrono::milliseconds(30));
                } while (!over);
            });
            inside_start = 1;
            ks_start(signalled);
            ks_stop(signalled);
            inside_start = 0;
            over = true;
            sender.join();
            EXPECT_EQ(signalled->worker, nullptr) << "mode " << mode << ", round " << round;
            EXPECT_FALSE(exists(dir.file("s"))) << "mode " << mode << ", round " << round;
            ks_free(signalled);
            support::restore_stdin();
        }
    }
    (void)signal(SIGUSR1, SIG_DFL);
}

void stop_signalled(int) {
    ks_stop(signalled);
    ++stops_returned;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // with allocators of their own
// The allocator asks the kernel for more (brk(2)) with its lock held, and just there the signal comes: neither the
// handler nor what it waits for may need that lock. The workers are so many that their table and stacks are not kept
// in the small stores of a thread, which need none.
TEST(ServiceStopTest, StopFromASignalHandlerInsideTheAllocator) {
    for (const unsigned mode : {3U, 5U}) {
        const support::temp_dir dir;
        const std::string name = "@" + dir.file("s");
        EXPECT_EXIT(
            {
                support::end_within(std::chrono::seconds(60));
                signalled = ks_create(name.c_str(), mode, 40, echo);
                ks_start(signalled);
                ks_signal(SIGSYS, stop_signalled);
                support::trap_system_call(SYS_brk);
                for (int i = 0; stops_returned == 0 && i < 10000; ++i) {
                    void* volatile more = malloc(60000); // or the compiler does without it
                    (void)more;
                }
                const bool stopped = __atomic_load_n(&signalled->worker, __ATOMIC_ACQUIRE) == nullptr;
                ks_free(signalled);
                _exit(stops_returned == 1 && stopped && !exists(dir.file("s")) ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << mode;
    }
}
#endif

ks_handle* inner = nullptr;
std::atomic<pthread_t> serves_both = {};
int serve_inner(const char*, ks_io* io, int) {
    ks_io_free(io);
    serves_both = pthread_self();
    ks_start(inner);
    return 0;
}

// A worker of one service can serve another in its callback. Stopping the outer one there cannot wait for it.
TEST(ServiceStopTest, StopOfTheOuterServiceOnAThreadThatServesTwo) {
    const support::temp_dir dir;
    const std::string outer_name = "@" + dir.file("outer");
    const std::string inner_name = "@" + dir.file("inner");
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            signalled = ks_create(outer_name.c_str(), 5, 1, serve_inner);
            inner = ks_create(inner_name.c_str(), 4, 1, echo);
            ks_signal(SIGUSR1, stop_signalled);
            ks_start(signalled);
            std::string reply;
            bool good = support::call(outer_name.c_str(), "c", "", &reply) == 5; // hung up on
            good = good && eventually([&] { return support::call(inner_name.c_str(), "c", "", &reply) == 0; });
            pthread_kill(serves_both, SIGUSR1);
            good = good && eventually([] { return stops_returned == 1; }) && !exists(dir.file("outer"));
            ks_free(inner);
            ks_free(signalled); // waits for the callback
            _exit(good ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// The producer's loop ends when a link does. What is left of such a run is the next ks_stop()'s.
TEST(ServiceStopTest, StopOfARunThatEndedByItself) {
    const support::temp_dir dir;
    const std::string path = dir.file("s");
    const std::string name = "@" + path;
    ks_handle* handle = ks_create(name.c_str(), 5, 2, echo);
    for (int round = 0; round < 2; ++round) {
        const auto before = support::open_descriptors();
        ks_start(handle);
        ASSERT_EQ(shutdown(entry_of(handle, 0).sockfd[0], SHUT_RDWR), 0);
        EXPECT_TRUE(eventually([&] { return support::open_descriptors() == before; })) << "all is closed";
        EXPECT_FALSE(support::raw_caller(path).connected());
        EXPECT_NE(__atomic_load_n(&handle->worker, __ATOMIC_ACQUIRE), nullptr);
        EXPECT_EQ(handle->stopping, 0);
        EXPECT_TRUE(exists(path));
        ks_stop(handle);
        EXPECT_EQ(handle->worker, nullptr);
        EXPECT_EQ(handle->stopping, 1);
        EXPECT_EQ(handle->paused, 1);
        EXPECT_FALSE(exists(path));
        EXPECT_FALSE(is_open(0)) << "KEPT";
        support::restore_stdin();
    }
    ks_free(handle);
    EXPECT_TRUE(is_open(0));
}

// Each thread that nobody joins keeps its stack.
TEST(ServiceStopTest, ThreadsAreJoinedByTheNextStartOrByFree) {
    const auto mappings = [] {
        std::ifstream maps("/proc/self/maps");
        return std::count(std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>(), '\n');
    };
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    for (const int starts : {1, 100}) { // of each handle
        const auto before = mappings();
        for (int i = 0; i < 100; i += starts) {
            ks_handle* handle = ks_create(name.c_str(), 5, 1, echo);
            for (int n = 0; n < starts; ++n) {
                ks_start(handle);
                ks_stop(handle);
            }
            ks_free(handle);
        }
        EXPECT_LT(mappings() - before, 100) << "two each";
    }
    support::restore_stdin();
}

// The socket of a start that is still under way is not to be taken away: it would find its file gone.
TEST(ServiceStopTest, StopOfTheSecondStartWaitsForItsSocket) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            support::supervised_calls calls({SYS_listen});
            ks_handle* handle = ks_create(name.c_str(), 5, 1, echo);
            ks_start(handle);
            ks_stop(handle);
            const support::gate here;
            calls.hold_next(here);
            std::thread starter([handle] { ks_start(handle); });
            bool good = here.await();
            std::atomic<pid_t> tid = 0;
            std::thread stopper([handle, &tid] {
                tid = gettid();
                ks_stop(handle);
            });
            good = good && eventually([handle] { return __atomic_load_n(&handle->stopping, __ATOMIC_ACQUIRE) != 0; });
            good = good && eventually([&tid] { return support::is_asleep(tid); }); // it waits for the run's end
            good = good && exists(dir.file("s"));
            here.open();
            starter.join();
            stopper.join();
            ks_free(handle);
            _exit(good && !exists(dir.file("s")) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ServiceStopTest, LinkThatHangsUpLetsStartReturn) {
    const support::temp_dir dir;
    const std::string path = dir.file("s");
    const std::string name = "@" + path;
    ks_handle* handle = ks_create(name.c_str(), 4, 2, echo);
    std::thread runner([handle] { ks_start(handle); });
    ASSERT_TRUE(eventually([&] {
        std::string reply;
        return support::call(name.c_str(), "c", "", &reply) == 0;
    }));
    ASSERT_EQ(shutdown(entry_of(handle, 1).sockfd[0], SHUT_RDWR), 0);
    runner.join();
    EXPECT_EQ(handle->worker, nullptr);
    EXPECT_EQ(handle->stopping, 0) << "nobody has stopped it";
    ks_free(handle);
}

} // namespace
