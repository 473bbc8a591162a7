// Names, modes and the life of a service; its process workers.
#include "framework_support.h"
#include "kservice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/prctl.h>
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
using support::eventually;
using support::service;

const unsigned kModes[] = {2, 3, 4, 5};

ks_handle* signalled = nullptr;
std::atomic<int> forks = 0;

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}
bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

struct created {
    explicit created(const char* name, unsigned mode = 5) : handle(ks_create(name, mode, 1, echo)) {}
    ~created() { ks_free(handle); }
    created(const created&) = delete;
    created& operator=(const created&) = delete;
    ks_handle* handle;
};

TEST(ServiceNameTest, OrdinaryNameIsHashed) {
    EXPECT_STREQ(created("abc").handle->sockfile, "/var/run/ks/A9993E36.sock");
    EXPECT_STREQ(created("VexHubServer-vexprod").handle->sockfile, "/var/run/ks/5C7A9C5E.sock");
}

TEST(ServiceNameTest, HashedNameHasNoLeadingZeros) {
    SHA1Context sha1;
    for (int i = 0;; ++i) {
        const std::string name = "service" + std::to_string(i);
        SHA1Reset(&sha1);
        SHA1Input(&sha1, reinterpret_cast<const unsigned char*>(name.data()), (unsigned)name.size());
        ASSERT_EQ(SHA1Result(&sha1), 1);
        if (sha1.digest[0] < 0x01000000U) {
            const created one(name.c_str());
            EXPECT_LT(strlen(one.handle->sockfile), strlen("/var/run/ks/A9993E36.sock") - 1);
            EXPECT_NE(one.handle->sockfile[strlen("/var/run/ks/")], '0');
            return;
        }
    }
}

TEST(ServiceNameTest, AbsoluteNameIsThePath) {
    EXPECT_STREQ(created("@/tmp/x.sock").handle->sockfile, "/tmp/x.sock");
}

TEST(ServiceNameTest, SixtyFourCharactersAreTaken) {
    const std::string name(64, 'n');
    const created one(name.c_str());
    EXPECT_EQ(std::string(one.handle->name), std::string(63, 'n')) << "of which 63 are kept";
    const std::string path = "@/" + std::string(62, 'p');
    const created two(path.c_str());
    EXPECT_EQ(std::string(two.handle->sockfile), "/" + std::string(62, 'p'));
    const created empty("");
    EXPECT_STREQ(empty.handle->sockfile, "/var/run/ks/DA39A3EE.sock");
}

TEST(ServiceTest, HandleHoldsTheOptions) {
    for (const unsigned mode : kModes) {
        ks_handle* handle = ks_create("abc", mode, 7, echo);
        EXPECT_EQ(memcmp(handle, "-VSk", 4), 0);
        EXPECT_EQ(handle->paused, 0);
        EXPECT_EQ(handle->stopping, 0);
        EXPECT_STREQ(handle->name, "abc");
        EXPECT_EQ(handle->mode, mode);
        EXPECT_EQ(handle->service_size, 7U);
        EXPECT_EQ(handle->exec, &echo);
        EXPECT_EQ(handle->init, nullptr);
        EXPECT_EQ(handle->fini, nullptr);
        EXPECT_EQ(handle->worker, nullptr);
        ks_free(handle);
    }
    support::restore_stdin();
}

TEST(ServiceTest, EveryModeServes) {
    for (const unsigned mode : kModes) {
        const service one(mode, 2, echo);
        for (int i = 0; i < 5; ++i) {
            std::string reply;
            ASSERT_EQ(support::call(one.name(), "cmd", "text", &reply), 0U) << mode;
            EXPECT_EQ(reply, "cmd|text|none") << mode;
        }
    }
}

TEST(ServiceTest, HashedNameIsPublishedForEverybody) {
    umask(077);
    {
        const service one("abc", 5, 1, echo);
        struct stat st = {};
        ASSERT_EQ(stat("/var/run/ks/A9993E36.sock", &st), 0);
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 0777U);
        std::string reply;
        EXPECT_EQ(support::call("abc", "c", "", &reply), 0U);
        EXPECT_EQ(reply, "c||none");
    }
    EXPECT_FALSE(exists("/var/run/ks/A9993E36.sock"));
    umask(022);
}

TEST(ServiceTest, StartMakesOneMissingDirectoryLevel) {
    const support::temp_dir dir;
    umask(0);
    {
        const service one("@" + dir.file("new/s"), 5, 1, echo);
        struct stat st = {};
        ASSERT_EQ(stat(dir.file("new").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0755U);
        std::string reply;
        EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    }
    umask(022);
}

TEST(ServiceTest, StartReplacesAnOldSocket) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    EXPECT_EXIT(
        {
            ks_start(ks_create(name.c_str(), 5, 1, echo));
            _exit(0); // leaves the socket behind
        },
        testing::ExitedWithCode(0), "");
    ASSERT_TRUE(exists(dir.file("s")));
    const service one(name, 5, 1, echo);
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
}

void ignore_argument(void*) {}

TEST(ServiceTest, TableDescribesTheWorkers) {
    const service one(5, 3, echo, [](ks_handle* handle) {
        ks_worker_init(handle, ignore_argument, &signalled);
        ks_worker_fini(handle, ignore_argument, &forks);
    });
    const ks_handle* handle = one.handle();
    for (size_t i = 0; i < 4; ++i) {
        const ks_worker& worker = handle->worker[i];
        EXPECT_EQ(worker.init, &ignore_argument);
        EXPECT_EQ(worker.init_argument, &signalled);
        EXPECT_EQ(worker.fini, &ignore_argument);
        EXPECT_EQ(worker.fini_argument, &forks);
    }
    for (size_t i = 0; i < 3; ++i) {
        const ks_worker& worker = handle->worker[i];
        EXPECT_EQ(worker.index, i);
        EXPECT_EQ(worker.flags, 5U);
        EXPECT_EQ(worker.exec, &echo);
        EXPECT_EQ(worker.idle, 1);
        EXPECT_EQ(worker.queue.type, 2U);
        EXPECT_EQ(worker.queue.sockfd, worker.sockfd[1]);
        EXPECT_GE(worker.sockfd[0], 3);
        EXPECT_GE(worker.sockfd[1], 3);
    }
    const ks_worker& producer = handle->worker[3];
    EXPECT_EQ(producer.flags, 4U);
    EXPECT_EQ(producer.queue.type, 1U);
    EXPECT_EQ(producer.queue.sockfd, producer.sockfd[1]);
    EXPECT_EQ(producer.sockfd[0], 0) << "KEPT: never assigned";
    EXPECT_EQ(producer.index, 3U);
    EXPECT_NE(fcntl(producer.sockfd[1], F_GETFL) & O_NONBLOCK, 0) << "accepting never blocks";
}

int tell_the_producers_flags(const char* /*command*/, ks_io* io, int /*fd*/) {
    ks_io_realloc(io, 0);
    ks_io_printf(io, "%u", signalled->worker[signalled->service_size].flags);
    ks_reply(io);
    ks_io_free(io);
    return 0;
}

// A process worker has the table as it was when the worker was started.
TEST(ServiceTest, ProducerIsMarkedAsAThreadUntilItServes) {
    const support::service one(2, 1, tell_the_producers_flags, [](ks_handle* handle) { signalled = handle; });
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_EQ(reply, "4");
}

std::atomic<uint32_t> seen_flags = 0;
std::atomic<pid_t> seen_pid = 0;
void look_at_the_producer(int) {
    const ks_worker& producer = signalled->worker[signalled->service_size];
    seen_pid = producer.id.pid;
    seen_flags = producer.flags;
}

// Looked at on the thread that serves: nobody else may.
TEST(ServiceTest, ProducerInTheCallersThreadIsMarkedAsAProcess) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    signalled = ks_create(name.c_str(), 4, 1, echo);
    (void)signal(SIGUSR1, look_at_the_producer);
    std::thread runner([] { ks_start(signalled); });
    ASSERT_TRUE(eventually([&] {
        std::string reply;
        return support::call(name.c_str(), "c", "", &reply) == 0; // the loop runs, and its entry is filled
    }));
    pthread_kill(runner.native_handle(), SIGUSR1);
    EXPECT_TRUE(eventually([] { return seen_flags != 0; }));
    EXPECT_EQ(seen_flags, 2U);
    EXPECT_EQ(seen_pid, getpid());
    ks_stop(signalled);
    runner.join();
    ks_free(signalled);
    (void)signal(SIGUSR1, SIG_DFL);
    support::restore_stdin();
}

TEST(ServiceTest, StopOfAnUnstartedServiceDoesNothing) {
    ks_handle* handle = ks_create("abc", 5, 1, echo);
    ASSERT_TRUE(is_open(0));
    ks_stop(handle);
    ks_stop(handle);
    EXPECT_TRUE(is_open(0));
    EXPECT_EQ(handle->stopping, 0);
    ks_free(handle);
    EXPECT_TRUE(is_open(0));
}

TEST(ServiceTest, StopWithdrawsTheServiceAndClosesDescriptorZero) {
    std::thread([] {}).join(); // the first thread brings the thread sanitizer's own with it
    for (const unsigned mode : kModes) {
        ASSERT_TRUE(is_open(0));
        const auto before = support::open_descriptors();
        const size_t threads = support::thread_count();
        {
            const support::temp_dir dir;
            const std::string name = "@" + dir.file("s");
            ks_handle* handle = ks_create(name.c_str(), mode, 2, echo);
            std::thread runner;
            if ((mode & 1) != 0) {
                ks_start(handle);
            } else {
                runner = std::thread([handle] { ks_start(handle); });
                ASSERT_TRUE(eventually([&] {
                    std::string reply;
                    return support::call(name.c_str(), "c", "", &reply) == 0;
                }));
            }
            ks_stop(handle);
            if (runner.joinable()) {
                runner.join();
            }
            EXPECT_EQ(handle->worker, nullptr);
            EXPECT_EQ(handle->paused, 1);
            EXPECT_EQ(handle->stopping, 1);
            EXPECT_FALSE(exists(dir.file("s")));
            EXPECT_FALSE(is_open(0)) << "KEPT";
            support::restore_stdin();
            ks_stop(handle);
            EXPECT_TRUE(is_open(0)) << "a second stop does nothing";
            ks_free(handle);
        }
        EXPECT_EQ(support::open_descriptors(), before) << mode;
        EXPECT_TRUE(eventually([&] { return support::thread_count() == threads; })) << mode;
    }
}

TEST(ServiceTest, ServesAgainAfterStopClosedDescriptorZero) {
    for (const unsigned mode : {3U, 5U}) {
        const support::temp_dir dir;
        const std::string name = "@" + dir.file("s");
        ks_handle* handle = ks_create(name.c_str(), mode, 1, echo);
        for (int round = 0; round < 3; ++round) {
            ks_start(handle);
            EXPECT_EQ(handle->paused, 0);
            for (size_t i = 0; i < 2; ++i) {
                EXPECT_GE(handle->worker[i].sockfd[1], 3);
            }
            // The caller's own sockets take whatever number is free, 0 included.
            std::string reply;
            EXPECT_EQ(support::call(name.c_str(), "c", "t", &reply), 0U);
            EXPECT_EQ(reply, "c|t|none");
            ks_stop(handle);
            EXPECT_FALSE(is_open(0));
        }
        ks_free(handle);
        support::restore_stdin();
    }
}

// A passed file that arrived as descriptor 0 is closed by a thread. After a stop, which closes 0 as well, that thread
// must not close what has the number by then.
TEST(ServiceTest, StopLeavesNobodyToCloseDescriptorZeroOnceMore) {
    std::thread([] {}).join(); // the first thread brings the thread sanitizer's own with it
    const size_t threads = support::thread_count();
    const support::descriptor memory = support::memory_file();
    for (int round = 0; round < 2000; ++round) {
        support::restore_stdin();
        const support::service one(5, 1, echo);
        const support::raw_caller caller(one.path());
        ASSERT_TRUE(caller.invited());
        close(STDIN_FILENO);
        ASSERT_TRUE(caller.request("c", memory.get()));
        ks_stop(one.handle());
        const support::descriptor next(open("/dev/null", O_RDWR | O_CLOEXEC));
        ASSERT_TRUE(eventually([&] { return support::thread_count() == threads; }));
        EXPECT_TRUE(is_open(next.get())) << next.get();
    }
    support::restore_stdin();
}

// With 0, 1 and 2 closed the kernel hands out those numbers first, to the accepted caller as well.
TEST(ServiceTest, CallersAreServedWhenTheStandardStreamsAreClosed) {
    for (const unsigned mode : {3U, 5U}) {
        const support::temp_dir dir;
        const std::string name = "@" + dir.file("s");
        EXPECT_EXIT(
            {
                close(0);
                close(1);
                close(2);
                ks_handle* handle = ks_create(name.c_str(), mode, 2, echo);
                ks_start(handle);
                const support::descriptor extra = support::memory_file("extra");
                int failures = 0;
                for (int i = 0; i < 20; ++i) {
                    std::string reply;
                    failures += support::call(name.c_str(), "c", "t", &reply, extra.get()) != 0 || reply != "c|t|extra";
                }
                for (size_t i = 0; i < 2; ++i) {
                    failures += handle->worker[i].sockfd[0] < 3 || handle->worker[i].sockfd[1] < 3;
                }
                failures += handle->worker[2].pollfd < 3 || handle->worker[2].sockfd[1] < 3;
                ks_free(handle);
                _exit(failures == 0 ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << mode;
    }
}

TEST(ServiceTest, PausedByThePauseAndNotByAnEarlierStop) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    ks_handle* handle = ks_create(name.c_str(), 5, 1, echo);
    ks_pause(handle);
    EXPECT_EQ(handle->paused, 1);
    ks_start(handle);
    std::string reply;
    EXPECT_EQ(support::call(name.c_str(), "c", "", &reply), 3U) << "paused before the start";
    ks_resume(handle);
    EXPECT_EQ(handle->paused, 0);
    EXPECT_EQ(support::call(name.c_str(), "c", "", &reply), 0U);
    ks_free(handle);
    support::restore_stdin();
}

TEST(ServiceTest, StartIgnoresBrokenPipesAndFileSizeLimits) {
    for (const int signum : {SIGPIPE, SIGXFSZ}) {
        (void)signal(signum, SIG_DFL);
        const service one(5, 1, echo);
        struct sigaction action = {};
        sigaction(signum, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_IGN) << signum;
    }
}

struct marks {
    std::atomic<int> init;
    std::atomic<int> fini;
};
void count_init(void* argument) {
    ++static_cast<marks*>(argument)->init;
}
void count_fini(void* argument) {
    ++static_cast<marks*>(argument)->fini;
}

TEST(ServiceTest, EveryConsumerRunsTheCallbacksOnce) {
    for (const unsigned mode : kModes) {
        const support::shared<marks> seen;
        {
            const service one(mode, 3, echo, [&](ks_handle* handle) {
                ks_worker_init(handle, count_init, &*seen);
                ks_worker_fini(handle, count_fini, &*seen);
                EXPECT_EQ(handle->init_argument, &*seen);
                EXPECT_EQ(handle->fini_argument, &*seen);
            });
            EXPECT_TRUE(eventually([&] { return seen->init == 3; })) << mode;
            EXPECT_EQ(seen->fini, 0) << mode;
        }
        EXPECT_EQ(seen->init, 3) << mode;
        EXPECT_EQ(seen->fini, 3) << mode;
    }
}

// The program may leave a signal to one thread of its own.
TEST(ServiceTest, WorkersHaveTheSignalMaskOfTheThreadThatCalledStart) {
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, SIGUSR2);
    sigset_t before;
    for (const unsigned mode : kModes) {
        pthread_sigmask(SIG_BLOCK, &own, &before);
        const service one(mode, 1, [](const char*, ks_io* io, int) {
            sigset_t mask;
            pthread_sigmask(SIG_SETMASK, nullptr, &mask);
            std::string text;
            for (const int signum : {SIGUSR1, SIGUSR2, SIGTERM}) {
                text += sigismember(&mask, signum) == 1 ? "blocked " : "free ";
            }
            support::answer(io, text);
            return 0;
        });
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        std::string reply;
        EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U) << mode;
        EXPECT_EQ(reply, "free blocked free ") << mode;
    }
}

pid_t only_worker(const ks_handle* handle) {
    return handle->worker[0].id.pid;
}

TEST(ServiceProcessTest, WorkersOutliveTheThreadThatStartedThem) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    ks_handle* handle = ks_create(name.c_str(), 3, 1, echo);
    std::thread([handle] { ks_start(handle); }).join();
    const pid_t worker = only_worker(handle);
    for (int i = 0; i < 10; ++i) {
        std::string reply;
        EXPECT_EQ(support::call(name.c_str(), "c", "", &reply), 0U);
    }
    EXPECT_EQ(waitpid(worker, nullptr, WNOHANG), 0) << "it lives";
    EXPECT_EQ(only_worker(handle), worker) << "and was not restarted";
    ks_free(handle);
    support::restore_stdin();
}

const support::shared<std::atomic<pid_t>> stubborn;
int never_return(const char*, ks_io*, int) {
    *stubborn = getpid();
    for (;;) {
        pause();
    }
}

// One that is busy does not see its link hang up: the kernel has to end it.
TEST(ServiceProcessTest, WorkersDieWithTheProcess) {
    for (const unsigned mode : {2U, 3U}) {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the orphan becomes ours
        *stubborn = 0;
        const support::temp_dir dir;
        const std::string name = "@" + dir.file("s");
        const pid_t daemon = fork();
        if (daemon == 0) {
            service one(name, mode, 1, never_return);
            std::string reply;
            (void)support::call(name.c_str(), "c", "", &reply);
            _exit(1);
        }
        ASSERT_TRUE(eventually([&] { return *stubborn != 0; }));
        kill(daemon, SIGKILL);
        ASSERT_EQ(waitpid(daemon, nullptr, 0), daemon);
        int status = 0;
        ASSERT_EQ(waitpid(*stubborn, &status, 0), *stubborn);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << mode;
        prctl(PR_SET_CHILD_SUBREAPER, 0);
    }
}

TEST(ServiceProcessTest, WorkersIgnoreTheTerminalsSignals) {
    const service one(3, 1, echo);
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    const pid_t worker = only_worker(one.handle());
    kill(worker, SIGINT);
    kill(worker, SIGTERM);
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_EQ(only_worker(one.handle()), worker);
}

// 0, 1 and 2 as they were, the link as 3, its own epoll, and the request's three: nothing of the parent's.
TEST(ServiceProcessTest, WorkersInheritOnlyTheStandardStreamsAndTheLink) {
    support::descriptor kept_open(fcntl(0, F_DUPFD, 200));
    ASSERT_GE(kept_open.get(), 200);
    const service one(3, 2, [](const char*, ks_io* io, int) {
        std::string text;
        for (const int fd : support::open_descriptors()) {
            text += fd == io->sockfd || fd == io->memfd ? "" : std::to_string(fd) + " ";
        }
        struct stat st = {};
        text += fstat(3, &st) == 0 && S_ISSOCK(st.st_mode) ? "link" : "no link";
        support::answer(io, text);
        return 0;
    });
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_EQ(reply, "0 1 2 3 4 link");
}

int tell_descriptors(const char*, ks_io* io, int) {
    rlimit room = {};
    getrlimit(RLIMIT_NOFILE, &room);
    room.rlim_cur = room.rlim_max;
    setrlimit(RLIMIT_NOFILE, &room); // for the look itself
    std::string text;
    for (const int fd : support::open_descriptors()) {
        text += fd == io->sockfd || fd == io->memfd ? "" : std::to_string(fd) + " ";
    }
    support::answer(io, text);
    return 0;
}

// As on a kernel before 5.9. The limit is lower than one of the descriptors, and all numbers below it are taken.
TEST(ServiceProcessTest, WorkersInheritNothingMoreWithoutCloseRange) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    EXPECT_EXIT(
        {
            const support::descriptor high(fcntl(0, F_DUPFD, 200));
            support::fail_system_call(SYS_close_range, ENOSYS);
            ks_handle* handle = ks_create(name.c_str(), 3, 1, tell_descriptors);
            rlimit before = {};
            getrlimit(RLIMIT_NOFILE, &before);
            std::vector<support::descriptor> taken; // as many as the listening socket, the epoll and the link will be
            for (int i = 0; i < 4; ++i) {
                taken.emplace_back(dup(0));
            }
            rlimit tight = before;
            tight.rlim_cur = (rlim_t)taken.back().get() + 1;
            taken.clear();
            setrlimit(RLIMIT_NOFILE, &tight);
            ks_start(handle);
            setrlimit(RLIMIT_NOFILE, &before);
            std::string reply;
            const unsigned code = support::call(name.c_str(), "c", "", &reply);
            fprintf(stderr, "%u, descriptors %s", code, reply.c_str());
            ks_free(handle);
            _exit(0);
        },
        testing::ExitedWithCode(0), testing::Eq("0, descriptors 0 1 2 3 4 "));
}

int tell_open_below_300(const char*, ks_io* io, int) {
    std::string text;
    for (int fd = 0; fd < 300; ++fd) {
        text += !is_open(fd) || fd == io->sockfd || fd == io->memfd ? "" : std::to_string(fd) + " ";
    }
    support::answer(io, text);
    return 0;
}

// Nor without /proc.
TEST(ServiceProcessTest, WorkersInheritNothingMoreWithoutCloseRangeAndProc) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    EXPECT_EXIT(
        {
            const support::descriptor high(fcntl(0, F_DUPFD, 200));
            support::fail_system_call(SYS_close_range, ENOSYS);
            support::fail_system_call(SYS_openat, ENOENT);
            ks_handle* handle = ks_create(name.c_str(), 3, 1, tell_open_below_300);
            ks_start(handle);
            std::string reply;
            const unsigned code = support::call(name.c_str(), "c", "", &reply);
            fprintf(stderr, "%u, descriptors %s", code, reply.c_str());
            ks_free(handle);
            _exit(0);
        },
        testing::ExitedWithCode(0), testing::Eq("0, descriptors 0 1 2 3 4 "));
}

std::atomic<int> stops_returned = 0;
void stop_signalled(int) {
    ks_stop(signalled);
    ++stops_returned;
}

// A routed signal can reach a worker too, on its own thread or on one that its callback has made.
TEST(ServiceProcessTest, StopInAWorkerLeavesTheServiceAlone) {
    ks_signal(SIGUSR1, stop_signalled);
    for (const unsigned mode : {2U, 3U}) {
        const service one(
            mode, 1,
            [](const char*, ks_io* io, int) {
                const int before = stops_returned;
                raise(SIGUSR1);
                std::thread([] { ks_stop(signalled); }).join();
                support::answer(io, (stops_returned == before + 1 ? "returned, " : "lost, ") +
                                        std::string(is_open(0) ? "open" : "closed"));
                return 0;
            },
            [](ks_handle* handle) { signalled = handle; });
        for (int i = 0; i < 3; ++i) {
            std::string reply;
            EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U) << mode;
            EXPECT_EQ(reply, "returned, open") << mode;
            EXPECT_TRUE(exists(one.path())) << mode;
        }
    }
    (void)signal(SIGUSR1, SIG_DFL);
}

// A worker has copies of the program's other services too.
TEST(ServiceProcessTest, StopAndFreeInAWorkerLeaveOtherServicesAlone) {
    const service other(5, 1, echo);
    signalled = other.handle();
    const service one(3, 1, [](const char*, ks_io* io, int) {
        ks_stop(signalled);
        ks_free(signalled);
        support::answer(io, "returned");
        return 0;
    });
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_EQ(reply, "returned");
    EXPECT_EQ(support::call(other.name(), "c", "text", &reply), 0U);
    EXPECT_EQ(reply, "c|text|none");
}

// The handler runs when the child knows that the service is the parent's.
TEST(ServiceProcessTest, SignalRightAfterTheForkOfAWorkerLeavesTheServiceAlone) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            ks_signal(SIGUSR1, stop_signalled);
            pthread_atfork(nullptr, nullptr, [] { (void)raise(SIGUSR1); });
            signalled = ks_create(name.c_str(), 3, 2, echo);
            ks_start(signalled);
            std::string reply;
            const bool good = support::call(name.c_str(), "c", "", &reply) == 0 && exists(dir.file("s"));
            ks_free(signalled);
            _exit(good ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

const support::gate* before_fork = nullptr; // where the producer waits, unless NULL

#ifdef SYS_unlink // newer architectures have only the other one
const std::vector<long> kUnlinks = {SYS_unlink, SYS_unlinkat};
#else
const std::vector<long> kUnlinks = {SYS_unlinkat};
#endif

// A thread of the program is inside ks_stop(), with the service's lock, while the producer restarts a worker. The new
// worker has a lock of its own.
TEST(ServiceProcessTest, WorkerForkedWhileTheServiceIsLockedCanStillCallStop) {
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            const auto wait = [] {
                if (before_fork != nullptr) {
                    before_fork->pass();
                }
            };
            pthread_atfork(
                wait, [] { ++forks; }, nullptr);
            support::supervised_calls calls(kUnlinks);
            signalled = ks_create(name.c_str(), 3, 1, echo);
            ks_worker_init(
                signalled, [](void*) { ks_stop(signalled); }, nullptr);
            ks_start(signalled);
            const pid_t worker = only_worker(signalled);
            siginfo_t info = {};
            bool good = kill(worker, SIGKILL) == 0 && waitid(P_PID, (id_t)worker, &info, WEXITED | WNOWAIT) == 0;
            const support::gate fork_gate;
            const support::gate unlink_gate;
            before_fork = &fork_gate;
            const support::raw_caller caller(dir.file("s")); // the producer finds nobody to hand it to
            good = good && fork_gate.await();
            calls.hold_next(unlink_gate);
            std::thread stopper([] { ks_stop(signalled); });
            good = good && unlink_gate.await();
            fork_gate.open();
            good = good && eventually([] { return forks == 2; });
            unlink_gate.open();
            stopper.join();
            ks_free(signalled);
            _exit(good ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
