// Every abort of the framework, provoked in a child process and its line compared whole. Resources are taken away by
// real limits where there is one, else by a filter that lets the kernel refuse the call.
#include "framework_support.h"
#include "internal.h"
#include "kservice.h"
#include "privileges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

using support::echo;
using support::fail_system_call;
using testing::Eq;
using testing::KilledBySignal;

#define EXPECT_ABORT(statement, line)                                                                                  \
    EXPECT_EXIT(statement, KilledBySignal(SIGABRT), Eq(std::string(line) + AFTER_ABORT))

// Not SIGABRT alone: without a core file, however the machine is set.
void no_core() {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

class AbortDeathTest : public testing::Test {
protected:
    void SetUp() override { no_core(); }

    std::string with_pointer(const char* before, const void* pointer, const char* after) {
        char text[64];
        (void)snprintf(text, sizeof(text), "%p", pointer);
        return std::string(before) + text + after;
    }

    support::temp_dir dir_;
    std::string name_ = "@" + dir_.file("s");
};

void limit(__rlimit_resource_t resource, rlim_t value) {
    rlimit to = {};
    getrlimit(resource, &to);
    to.rlim_cur = value; // the hard one stays, so that a coverage build can still write its counters
    setrlimit(resource, &to);
}

// Allows `count` more descriptors, wherever the free numbers are.
void leave_room_for(int count) {
    std::vector<int> taken;
    for (int i = 0; i < count; ++i) {
        taken.push_back(dup(2));
    }
    limit(RLIMIT_NOFILE, (rlim_t)taken.back() + 1);
    for (const int each : taken) {
        close(each);
    }
}

void as_nobody() {
    if (setgid(65534) != 0 || setuid(65534) != 0) {
        _exit(1);
    }
}

TEST_F(AbortDeathTest, OverlongMessageAndLineAreCut) {
    const std::string message(600, 'm');
    const std::string text(3000, 't');
    const std::string start = "[ABORT] @f() " + message.substr(0, 511) + ": `";
    EXPECT_ABORT(ks::abort_with("f", text.c_str(), "%s", message.c_str()), start + text.substr(0, 2047 - start.size()));
    EXPECT_ABORT(ks::abort_with("f", "t", "%s", message.c_str()), start + "t'\n");
}

// ---- The message object

constexpr const char* kIo = ": `io && (*(u_int32_t*) io == KS_IO_MAGIC)'\n";

TEST_F(AbortDeathTest, ForeignIoWithTheOperationsOwnWords) {
    ks_io foreign = {};
    foreign.magic = 0x6B494F2E;
    ks_io* io = &foreign;
    const auto line = [&](const char* function, const char* words, const char* after, const void* pointer) {
        return with_pointer((std::string("[ABORT] @") + function + "() cannot " + words + " incorrect ks_io ").c_str(),
                            pointer, (std::string(after) + kIo).c_str());
    };
    EXPECT_ABORT(ks_io_free(io), line("ks_io_free", "free", "", io));
    EXPECT_ABORT(ks_io_realloc(io, 1), line("ks_io_realloc", "alloc", "", io));
    EXPECT_ABORT(ks_io_read(io, nullptr), line("ks_io_read", "read", "", io));
    EXPECT_ABORT((void)ks_io_write(io, "x", 1), line("ks_io_write", "read", "", io));
    EXPECT_ABORT((void)ks_io_splice(io, 0, 1), line("ks_io_splice", "read", "", io));
    EXPECT_ABORT(ks_io_printf(io, "x"), line("ks_io_printf", "printf", "", io));
    EXPECT_ABORT(ks_io_set(io, nullptr), line("ks_io_set", "attach", "", io));
    EXPECT_ABORT(ks_io_get(io), line("ks_io_get", "detach", "", io));
    EXPECT_ABORT(ks_io_pid(io), line("ks_io_pid", "fetch", " pid", io));
    EXPECT_ABORT(ks_io_uid(io), line("ks_io_uid", "fetch", " uid", io));
    EXPECT_ABORT(ks_io_gid(io), line("ks_io_gid", "fetch", " gid", io));
    EXPECT_ABORT(ks_io_alive(io), line("ks_io_alive", "check", " alive", io));
    EXPECT_ABORT(ks_json_write_io("x", 1, io), line("ks_io_write", "read", "", io));
    EXPECT_ABORT(ks_reply(io), line("ks_reply", "response", "", io));
    EXPECT_ABORT(ks_io_free(nullptr), line("ks_io_free", "free", "", nullptr));
    EXPECT_ABORT(ks_io_realloc(nullptr, 0), line("ks_io_realloc", "alloc", "", nullptr));
    EXPECT_ABORT(ks_io_read(nullptr, nullptr), line("ks_io_read", "read", "", nullptr));
    EXPECT_ABORT(ks_io_alive(nullptr), line("ks_io_alive", "check", " alive", nullptr));
    EXPECT_ABORT(ks_reply(nullptr), line("ks_reply", "response", "", nullptr));
}

TEST_F(AbortDeathTest, FreeOfAnObjectWhoseMagicWasOverwritten) {
    ks_io* io = ks_io_create();
    const std::string line = with_pointer("[ABORT] @ks_io_free() cannot free incorrect ks_io ", io, kIo);
    EXPECT_ABORT(
        {
            io->magic = 0;
            ks_io_free(io);
        },
        line);
    ks_io_free(io);
}

TEST_F(AbortDeathTest, MemoryFileCannotBeMade) {
    const char* line = "[ABORT] @ks_io_shm() create share memory file fail: `io->memfd != -1 && "
                       "set_fd_cloexec(io->memfd)'\n";
    EXPECT_ABORT(
        {
            ks_io* io = ks_io_create();
            limit(RLIMIT_NOFILE, 3);
            (void)ks_io_write(io, "x", 1);
        },
        line);
    EXPECT_ABORT(
        {
            fail_system_call(SYS_memfd_create, ENOSYS);
            (void)ks_io_fileno(ks_io_create());
        },
        line);
}

TEST_F(AbortDeathTest, MemoryFileCannotBeResized) {
    EXPECT_ABORT(
        {
            (void)signal(SIGXFSZ, SIG_IGN);
            limit(RLIMIT_FSIZE, 4096);
            ks_io_realloc(ks_io_create(), 4097);
        },
        "[ABORT] @ks_io_realloc() ftruncate memory file fail: `ftruncate(io->memfd, size) == 0'\n");
    EXPECT_ABORT(ks_io_realloc(ks_io_create(), (size_t)-1),
                 "[ABORT] @ks_io_realloc() ftruncate memory file fail: `ftruncate(io->memfd, size) == 0'\n");
    // The program's own file: a new one in its place would do, and would hide the misuse.
    EXPECT_ABORT(
        {
            ks_io* io = ks_io_create();
            io->memfd = memfd_create("sealed", MFD_ALLOW_SEALING);
            (void)fcntl(io->memfd, F_ADD_SEALS, F_SEAL_GROW);
            ks_io_realloc(io, 1);
        },
        "[ABORT] @ks_io_realloc() ftruncate memory file fail: `ftruncate(io->memfd, size) == 0'\n");
}

TEST_F(AbortDeathTest, MemoryFileCannotBeMapped) {
    EXPECT_ABORT(ks_io_realloc(ks_io_create(), (size_t)1 << 62),
                 "[ABORT] @ks_io_realloc() create memory map fail: `io->shared_data != MAP_FAILED'\n");
    EXPECT_ABORT(
        {
            ks_io* io = ks_io_create();
            if (ftruncate(ks_io_fileno(io), (off_t)1 << 62) == 0) {
                ks_io_sync(io);
            }
        },
        "[ABORT] @ks_io_sync() create memory map fail: `io->shared_data != MAP_FAILED'\n");
    EXPECT_ABORT(
        {
            ks_io* io = ks_io_create();
            if (ftruncate(ks_io_fileno(io), (off_t)1 << 62) == 0) {
                ks_io_read(io, nullptr);
            }
        },
        "[ABORT] @ks_io_sync() create memory map fail: `io->shared_data != MAP_FAILED'\n");
}

// ---- Memory runs out. A sanitizer's allocator ends the process by itself, with its own words.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void use_up_memory() {
    limit(RLIMIT_AS, 0);
    for (size_t size = 1 << 20; size >= 1; size /= 2) {
        void* volatile last = nullptr; // or the compiler does without the allocations
        do {
            last = malloc(size);
        } while (last != nullptr);
    }
}

TEST_F(AbortDeathTest, AllocationFails) {
    EXPECT_ABORT(
        {
            use_up_memory();
            ks_io_create();
        },
        "[ABORT] @ks_io_create() alloc ks_io memory fail: `io'\n");
    EXPECT_ABORT(
        {
            use_up_memory();
            ks_epoll_create();
        },
        "[ABORT] @ks_epoll_create() alloc epoll memory fail: `(epoll = calloc(1, sizeof(ks_epoll)))'\n");
    EXPECT_ABORT(
        {
            use_up_memory();
            ks_create("abc", 5, 1, echo);
        },
        "[ABORT] @ks_create() alloc ks_handle memory fail: `(service_handle = malloc(sizeof(ks_handle)))'\n");
    EXPECT_ABORT(
        {
            ks_fini();
            use_up_memory();
            ks_init();
        },
        "[ABORT] @ks_init() cannot compile blocked program list: `regcomp(&re, BLOCKED_PROGRAM_LIST, REG_EXTENDED) "
        "== 0'\n");
}

TEST_F(AbortDeathTest, ReplyCannotBeCopied) {
    const support::service one(name_, 5, 1, [](const char*, ks_io* io, int) {
        ks_io_realloc(io, (size_t)256 << 20);
        ks_reply(io);
        ks_io_free(io);
        return 0;
    });
    EXPECT_ABORT(
        {
            limit(RLIMIT_DATA, (rlim_t)64 << 20); // private memory only: the shared mapping is not counted
            void* reply = nullptr;
            (void)ks_ez_call(name_.c_str(), "c", nullptr, 0, &reply, nullptr, 30, -1);
        },
        "[ABORT] @ks_ez_call() cannot realloc recv memory: `(*recv = realloc(*recv, io->shared_size))'\n");
}
#endif

TEST_F(AbortDeathTest, WorkerTableCannotBeAllocated) {
    const char* line = "[ABORT] @ks_start() alloc worker memory fail: `(service_handle->worker = "
                       "calloc(service_option->service_size + 1, sizeof(ks_worker)))'\n";
    EXPECT_ABORT(ks_start(ks_create("abc", 5, (size_t)-1, echo)), line);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_ABORT(ks_start(ks_create("abc", 5, (size_t)1 << 60, echo)), line);
    EXPECT_ABORT(ks_start(ks_create("abc", 5, (size_t)1 << 45, echo)), line);
#endif
}

// ---- ks_create(), in the order of its checks

TEST_F(AbortDeathTest, NameIsMissingOrTooLong) {
    const char* line =
        "[ABORT] @ks_create() name cannot be NULL and maximum characters is 64: `name && strlen(name) <= "
        "MAXIMUM_NAME_SIZE'\n";
    EXPECT_ABORT(ks_create(nullptr, 5, 1, echo), line);
    EXPECT_ABORT(ks_create(std::string(65, 'n').c_str(), 5, 1, echo), line);
    EXPECT_ABORT(ks_create(nullptr, 0, 0, nullptr), line);
}

TEST_F(AbortDeathTest, ModeWithoutAWorkerKind) {
    const char* line = "[ABORT] @ks_create() mode miss KS_PROCESS_MODE or KS_PTHREAD_MODE: `(mode | KS_STANDALONE) != "
                       "KS_STANDALONE'\n";
    EXPECT_ABORT(ks_create("abc", 1, 1, echo), line);
    EXPECT_ABORT(ks_create("abc", 0, 0, nullptr), line);
    EXPECT_ABORT(ks_create("@tmp", 1, 0, nullptr), line) << "before the later checks";
}

TEST_F(AbortDeathTest, ModeOutsideTheFour) {
    const char* line =
        "[ABORT] @ks_create() mode only work KS_PROCESS_MODE or KS_PTHREAD_MODE: `(mode | KS_PROCESS_MODE) == "
        "KS_PROCESS_MODE || (mode | KS_PROCESS_MODE) == (KS_STANDALONE | KS_PROCESS_MODE) || (mode | KS_PTHREAD_MODE) "
        "== KS_PTHREAD_MODE || (mode | KS_PTHREAD_MODE) == (KS_STANDALONE | KS_PTHREAD_MODE)'\n";
    for (const unsigned mode : {6U, 7U, 8U, 9U, 10U, 12U, 13U, 0x80000004U}) {
        EXPECT_ABORT(ks_create("abc", mode, 0, nullptr), line) << mode;
    }
}

TEST_F(AbortDeathTest, NoWorkersOrNoCallback) {
    EXPECT_ABORT(ks_create("@tmp", 5, 0, nullptr), "[ABORT] @ks_create() workers option cannot be zero: `workers > "
                                                   "0'\n");
    EXPECT_ABORT(ks_create("@tmp", 5, 1, nullptr), "[ABORT] @ks_create() exec must be callable function pointer: "
                                                   "`exec'\n");
}

TEST_F(AbortDeathTest, AtNameIsNoAbsolutePath) {
    const char* line = "[ABORT] @ks_create() name must be absolute file path: `(name[0] == '@' && name[1] == '/')'\n";
    EXPECT_ABORT(ks_create("@tmp", 5, 1, echo), line);
    EXPECT_ABORT(ks_create("@", 5, 1, echo), line);
}

// ---- Handles

TEST_F(AbortDeathTest, ForeignHandleWithTheOperationsOwnWords) {
    const char* after = ": `service_handle && (*(u_int32_t*) service_handle == KS_HANDLE_MAGIC)'\n";
    ks_handle foreign = {};
    ks_handle* handle = &foreign;
    EXPECT_ABORT(ks_start(handle),
                 with_pointer("[ABORT] @ks_start() cannot start incorrect ks_handle ", handle, after));
    EXPECT_ABORT(ks_worker_init(handle, nullptr, nullptr),
                 with_pointer("[ABORT] @ks_worker_init() cannot start incorrect ks_handle ", handle, after));
    EXPECT_ABORT(ks_worker_fini(handle, nullptr, nullptr),
                 with_pointer("[ABORT] @ks_worker_fini() cannot start incorrect ks_handle ", handle, after));
    EXPECT_ABORT(ks_stop(handle), with_pointer("[ABORT] @ks_stop() cannot stop incorrect ks_handle ", handle, after));
    EXPECT_ABORT(ks_free(handle), with_pointer("[ABORT] @ks_stop() cannot stop incorrect ks_handle ", handle, after));
    EXPECT_ABORT(ks_pause(handle),
                 with_pointer("[ABORT] @ks_pause() cannot pause incorrect ks_handle ", handle, after));
    EXPECT_ABORT(ks_resume(handle),
                 with_pointer("[ABORT] @ks_resume() cannot resume incorrect ks_handle ", handle, after));
    EXPECT_ABORT(ks_start(nullptr),
                 with_pointer("[ABORT] @ks_start() cannot start incorrect ks_handle ", nullptr, after));
    EXPECT_ABORT(ks_stop(nullptr), with_pointer("[ABORT] @ks_stop() cannot stop incorrect ks_handle ", nullptr, after));
    EXPECT_ABORT(ks_pause(nullptr),
                 with_pointer("[ABORT] @ks_pause() cannot pause incorrect ks_handle ", nullptr, after));
    EXPECT_ABORT(ks_resume(nullptr),
                 with_pointer("[ABORT] @ks_resume() cannot resume incorrect ks_handle ", nullptr, after));
}

TEST_F(AbortDeathTest, SecondStart) {
    for (const unsigned mode : {3U, 5U}) {
        EXPECT_ABORT(
            {
                ks_handle* handle = ks_create(name_.c_str(), mode, 1, echo);
                ks_start(handle);
                ks_start(handle);
            },
            "[ABORT] @ks_start() cannot start service twice: `service_handle->worker == NULL'\n");
    }
}

// ---- Set-up of the producer

// Newer architectures have only the second of each pair.
void refuse_epolls() {
#ifdef SYS_epoll_create
    fail_system_call(SYS_epoll_create, EMFILE);
#endif
    fail_system_call(SYS_epoll_create1, EMFILE);
}

void refuse_modes() {
#ifdef SYS_chmod
    fail_system_call(SYS_chmod, EROFS);
#endif
    fail_system_call(SYS_fchmodat, EROFS);
}

TEST_F(AbortDeathTest, PathIsNoSocket) {
    const std::string path = dir_.file("s");
    const support::descriptor file(open(path.c_str(), O_WRONLY | O_CREAT, 0600));
    EXPECT_ABORT(ks_start(ks_create(name_.c_str(), 5, 1, echo)),
                 "[ABORT] @ks_producer_worker_init() " + path + " is not a sock file: `S_ISSOCK(st.st_mode)'\n");
    EXPECT_EQ(access(path.c_str(), F_OK), 0) << "left alone";
}

TEST_F(AbortDeathTest, ListeningSocketCannotBeMade) {
    const char* line = "[ABORT] @ks_producer_worker_init() producer-worker create listen socket fail: "
                       "`(producer_worker->sockfd[1] = socket(AF_UNIX, SOCK_STREAM, 0)) >= 0 && "
                       "set_fd_cloexec(producer_worker->sockfd[1])'\n";
    EXPECT_ABORT(
        {
            ks_handle* handle = ks_create(name_.c_str(), 5, 1, echo);
            limit(RLIMIT_NOFILE, 3);
            ks_start(handle);
        },
        line);
    EXPECT_ABORT(
        {
            fail_system_call(SYS_fcntl, EPERM, F_SETFL);
            ks_start(ks_create(name_.c_str(), 5, 1, echo));
        },
        line);
}

TEST_F(AbortDeathTest, SocketCannotBeBound) {
    SKIP_UNLESS(may_become_others(), "starts a service as another user, which takes the machine's root");
    const char* line = "[ABORT] @ks_producer_worker_init() producer-worker bind listen socket fail: "
                       "`bind(producer_worker->sockfd[1], (struct sockaddr *) &sockaddr, sizeof(struct sockaddr_un)) "
                       "== 0'\n";
    const std::string deeper = "@" + dir_.file("no/such/s");
    EXPECT_ABORT(ks_start(ks_create(deeper.c_str(), 5, 1, echo)), line) << "one level only is made";
    EXPECT_EQ(access(dir_.file("no").c_str(), F_OK), -1);
    EXPECT_ABORT(
        {
            as_nobody();
            ks_start(ks_create(name_.c_str(), 5, 1, echo));
        },
        line);
}

TEST_F(AbortDeathTest, ProducersEpollCannotBeMade) {
    const char* line =
        "[ABORT] @ks_producer_worker_init() producer-worker create epoll fail: "
        "`(producer_worker->pollfd = epoll_create(1)) >= 0 && set_fd_cloexec(producer_worker->pollfd)'\n";
    EXPECT_ABORT(
        {
            ks_handle* handle = ks_create(name_.c_str(), 5, 1, echo);
            leave_room_for(1); // the listening socket
            ks_start(handle);
        },
        line);
    EXPECT_ABORT(
        {
            refuse_epolls();
            ks_start(ks_create(name_.c_str(), 5, 1, echo));
        },
        line);
}

TEST_F(AbortDeathTest, ListenFails) {
    EXPECT_ABORT(
        {
            fail_system_call(SYS_listen, EINVAL);
            ks_start(ks_create(name_.c_str(), 5, 1, echo));
        },
        "[ABORT] @ks_producer_worker_init() producer-worker listen socket fail: "
        "`listen(producer_worker->queue.sockfd, SOMAXCONN) == 0'\n");
}

TEST_F(AbortDeathTest, ModeOfTheSocketFileCannotBeChanged) {
    EXPECT_ABORT(
        {
            refuse_modes();
            ks_start(ks_create(name_.c_str(), 5, 1, echo));
        },
        "[ABORT] @ks_producer_worker_init() producer-worker change socket file mode fail: "
        "`chmod(service_handle->sockfile, 0777) == 0'\n");
}

TEST_F(AbortDeathTest, ListeningSocketCannotBeWatched) {
    EXPECT_ABORT(
        {
            fail_system_call(SYS_epoll_ctl, ENOSPC, 1); // EPOLL_CTL_ADD
            ks_start(ks_create(name_.c_str(), 5, 1, echo));
        },
        "[ABORT] @ks_start() producer-worker epoll add listen sockfd fail: `epoll_ctl(producer_worker->pollfd, "
        "EPOLL_CTL_ADD, producer_worker->queue.sockfd, ev) == 0'\n");
}

// ---- Set-up of the consumers

TEST_F(AbortDeathTest, LinkCannotBeMade) {
    for (const unsigned mode : {3U, 5U}) {
        EXPECT_ABORT(
            {
                fail_system_call(SYS_socketpair, EMFILE);
                ks_start(ks_create(name_.c_str(), mode, 1, echo));
            },
            "[ABORT] @ks_consumer_worker_init() consumer-worker create sockets fail: `socketpair(AF_UNIX, SOCK_STREAM, "
            "0, worker->sockfd) >= 0 && set_fd_cloexec(worker->sockfd[0]) && set_fd_cloexec(worker->sockfd[1])'\n");
    }
    EXPECT_ABORT(
        {
            ks_handle* handle = ks_create(name_.c_str(), 4, 1, echo);
            leave_room_for(3); // the listening socket, the epoll, and half a pair
            ks_start(handle);
        },
        "[ABORT] @ks_consumer_worker_init() consumer-worker create sockets fail: `socketpair(AF_UNIX, SOCK_STREAM, "
        "0, worker->sockfd) >= 0 && set_fd_cloexec(worker->sockfd[0]) && set_fd_cloexec(worker->sockfd[1])'\n");
}

TEST_F(AbortDeathTest, EndOfTheLinkCannotBeSetUp) {
    for (const size_t end : {2U, 3U}) { // behind the listening socket and the epoll
        EXPECT_ABORT(
            {
                support::supervised_calls calls({SYS_fcntl});
                ks_handle* handle = ks_create(name_.c_str(), 5, 1, echo);
                std::vector<support::descriptor> next;
                for (int i = 0; i < 4; ++i) {
                    next.emplace_back(dup(2));
                }
                calls.fail_next(SYS_fcntl, next[end].get(), EPERM);
                next.clear();
                ks_start(handle);
            },
            "[ABORT] @ks_consumer_worker_init() consumer-worker create sockets fail: `socketpair(AF_UNIX, SOCK_STREAM, "
            "0, worker->sockfd) >= 0 && set_fd_cloexec(worker->sockfd[0]) && set_fd_cloexec(worker->sockfd[1])'\n");
    }
}

TEST_F(AbortDeathTest, ThreadOrProcessCannotBeMade) {
    SKIP_UNLESS(may_become_others(), "starts services as another user, which takes the machine's root");
    ASSERT_EQ(chmod(dir_.path().c_str(), 0777), 0);
    for (const unsigned mode : {4U, 5U}) {
        EXPECT_ABORT(
            {
                as_nobody();
                limit(RLIMIT_NPROC, 0);
                ks_start(ks_create(name_.c_str(), mode, 1, echo));
            },
            "[ABORT] @ks_consumer_worker_init() consumer-worker create thread fail: `pthread_create(&worker->id.tid, "
            "&attr, ks_consumer_worker, (void*) worker) == 0'\n");
    }
    for (const unsigned mode : {2U, 3U}) {
        EXPECT_ABORT(
            {
                as_nobody();
                limit(RLIMIT_NPROC, 0);
                ks_start(ks_create(name_.c_str(), mode, 1, echo));
            },
            "[ABORT] @ks_consumer_worker_init() consumer-worker create process fail: `(worker->id.pid = fork()) >= "
            "0'\n");
    }
}

// The listening socket is registered first, so the calls must begin to fail between two: with the first of many
// workers.
TEST_F(AbortDeathTest, LinkCannotBeWatched) {
    EXPECT_ABORT(
        {
            ks_handle* handle = ks_create(name_.c_str(), 5, 500, echo);
            ks_worker_init(
                handle,
                [](void*) {
                    static std::atomic<bool> done = false;
                    if (!done.exchange(true)) {
                        fail_system_call(SYS_epoll_ctl, ENOSPC, 1); // EPOLL_CTL_ADD
                    }
                },
                nullptr);
            ks_start(handle);
        },
        "[ABORT] @ks_consumer_worker_init() producer-worker epoll add consumer-worker sockfd fail: "
        "`epoll_ctl(producer_worker->pollfd, EPOLL_CTL_ADD, worker->queue.sockfd, ev) == 0'\n");
}

// ---- The running producer, lied to over its own links

int say_too_little(const char*, ks_io*, int) {
    (void)!write(3, "\x01short", 6);
    pause();
    return 0;
}

int say_negative(const char*, ks_io*, int) {
    unsigned char bytes[259] = {6, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    (void)!write(3, bytes, sizeof(bytes));
    pause();
    return 0;
}

void serve_one(const std::string& name, unsigned mode, ks_exec exec) {
    const support::service one(name, mode, 1, exec);
    std::string reply;
    (void)support::call(name.c_str(), "c", "", &reply);
    pause();
}

TEST_F(AbortDeathTest, ShortDirectiveOfAConsumer) {
    EXPECT_ABORT(serve_one(name_, 3, say_too_little),
                 "[ABORT] @ks_producer_worker() producer-worker receive consumer_worker directive fail: "
                 "`read(event_queue->sockfd, &directive, sizeof(directive)) == sizeof(directive)'\n");
}

// Not a hang-up: the producer could still speak.
TEST_F(AbortDeathTest, EndOfAConsumersSpeech) {
    EXPECT_ABORT(
        {
            const support::service one(name_, 5, 1, echo);
            (void)shutdown(support::entry_of(one.handle(), 0).sockfd[0], SHUT_WR);
            pause();
        },
        "[ABORT] @ks_producer_worker() producer-worker receive consumer_worker directive fail: "
        "`read(event_queue->sockfd, &directive, sizeof(directive)) == sizeof(directive)'\n");
}

TEST_F(AbortDeathTest, NegativeNumberInAnEcho) {
    EXPECT_ABORT(serve_one(name_, 3, say_negative),
                 "[ABORT] @ks_producer_worker() producer-worker transfer client sockfd fail: "
                 "`*((int*)&directive.data) >= 0'\n");
}

// A peer that closes with unread data in its queue leaves an error on the link.
TEST_F(AbortDeathTest, ErrorOnALink) {
    EXPECT_ABORT(
        {
            static support::gate* busy = nullptr;
            support::gate here;
            busy = &here;
            const support::service one(name_, 5, 1, [](const char*, ks_io*, int) {
                busy->pass();
                return 0;
            });
            const support::raw_caller caller(one.path());
            const support::descriptor file = support::memory_file();
            if (caller.invited() && caller.send(support::make_record(8)) && caller.send_fds({file.get()}) &&
                here.await()) {
                const ks_worker& worker = one.handle()->worker[0];
                (void)send(worker.sockfd[1], "unread", 6, MSG_NOSIGNAL);
                close(worker.sockfd[0]);
            }
            pause();
        },
        "[ABORT] @ks_producer_worker() get non-client socket execption 2: `event_queue->type == CLIENT_SOCK'\n");
}

// ---- The calling side

constexpr const char* kEpoll = ": `epoll && (*(u_int32_t*) epoll == KS_EPOLL_MAGIC)'\n";

TEST_F(AbortDeathTest, ForeignEpollOrIoWithTheOperationsOwnWords) {
    ks_epoll foreign = {};
    ks_io foreign_io = {};
    ks_epoll* bad = &foreign;
    ks_epoll* good = ks_epoll_create();
    ks_io* io = ks_io_create();
    for (ks_epoll* each : {bad, static_cast<ks_epoll*>(nullptr)}) {
        EXPECT_ABORT(ks_epoll_call(each, "abc", "c", io, -1),
                     with_pointer("[ABORT] @ks_epoll_call() cannot call incorrect ks_epoll ", each, kEpoll));
        EXPECT_ABORT(ks_epoll_cancel(each, io),
                     with_pointer("[ABORT] @ks_epoll_cancel() cannot cancel incorrect ks_epoll ", each, kEpoll));
        EXPECT_ABORT(ks_epoll_perform(each, 0, nullptr),
                     with_pointer("[ABORT] @ks_epoll_perform() cannot perform incorrect ks_epoll ", each, kEpoll));
        EXPECT_ABORT(ks_epoll_free(each),
                     with_pointer("[ABORT] @ks_epoll_free() cannot free incorrect ks_epoll ", each, kEpoll));
    }
    for (ks_io* each : {&foreign_io, static_cast<ks_io*>(nullptr)}) {
        EXPECT_ABORT(ks_epoll_call(good, "abc", "c", each, -1),
                     with_pointer("[ABORT] @ks_epoll_call() cannot make incorrect ks_io ", each,
                                  (std::string(" request") + kIo).c_str()));
        EXPECT_ABORT(ks_epoll_cancel(good, each),
                     with_pointer("[ABORT] @ks_epoll_cancel() cannot cancel incorrect ks_io ", each, kIo));
        EXPECT_ABORT((void)ks_call("abc", "c", each, 5, -1),
                     with_pointer("[ABORT] @ks_epoll_call() cannot make incorrect ks_io ", each,
                                  (std::string(" request") + kIo).c_str()));
    }
    ks_io_free(io);
    ks_epoll_free(good);
}

TEST_F(AbortDeathTest, EasyCallWithBadBuffers) {
    EXPECT_ABORT((void)ks_ez_call("abc", "c", nullptr, 12, nullptr, nullptr, 5, -1),
                 "[ABORT] @ks_ez_call() data memory access violation with size (12): `data != NULL || (data == NULL && "
                 "dsize == 0U)'\n");
    EXPECT_ABORT(
        {
            void* reply = &reply;
            (void)ks_ez_call("abc", "c", nullptr, 0, &reply, nullptr, 5, -1);
        },
        "[ABORT] @ks_ez_call() recv memory access violation: `(recv == NULL || *recv == NULL)'\n");
}

TEST_F(AbortDeathTest, CallersEpollCannotBeMade) {
    const char* line = "[ABORT] @ks_epoll_create() create request epoll fail: `((epoll->fd = epoll_create(1)) >= 0 && "
                       "set_fd_cloexec(epoll->fd))'\n";
    EXPECT_ABORT(
        {
            limit(RLIMIT_NOFILE, 3);
            ks_epoll_create();
        },
        line);
    EXPECT_ABORT(
        {
            fail_system_call(SYS_fcntl, EPERM, F_SETFL);
            ks_epoll_create();
        },
        line);
}

TEST_F(AbortDeathTest, CallersSocketCannotBeMade) {
    EXPECT_ABORT(
        {
            ks_epoll* epoll = ks_epoll_create();
            limit(RLIMIT_NOFILE, 3);
            ks_epoll_call(epoll, "abc", "c", ks_io_create(), -1);
        },
        "[ABORT] @ks_epoll_call() create request socket fail: `(io->sockfd = socket(AF_UNIX, SOCK_STREAM, 0)) >= 0 && "
        "set_fd_cloexec(io->sockfd)'\n");
}

TEST_F(AbortDeathTest, RequestCannotBeWatched) {
    const support::service one(name_, 5, 1, echo);
    EXPECT_ABORT(
        {
            ks_epoll* epoll = ks_epoll_create();
            fail_system_call(SYS_epoll_ctl, ENOSPC, 1); // EPOLL_CTL_ADD
            ks_epoll_call(epoll, name_.c_str(), "c", ks_io_create(), -1);
        },
        "[ABORT] @ks_epoll_call() epoll add request sockfd fail: `epoll_ctl(epoll->fd, EPOLL_CTL_ADD, io->sockfd, ev) "
        "== 0'\n");
}

} // namespace
