/* A call fails without having been made, but for those at the end. */
#include "failing_calls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/* Shared with forked processes, as process workers are. */
struct plan {
    const char* function; /* NULL = none fails; accessed atomically, as the counts are */
    int error;
    int for_good;
    unsigned nth;
    unsigned calls;
    unsigned failed;
};

static struct plan* plan;
static long blocks;

void fail_calls(const char* function, int error, unsigned nth, int for_good) {
    if (plan == NULL) {
        plan = mmap(NULL, sizeof(*plan), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    }
    const struct plan next = {NULL, error, for_good, nth, 0, 0};
    *plan = next;
    __atomic_store_n(&plan->function, function, __ATOMIC_RELEASE);
}

unsigned stop_failing(void) {
    __atomic_store_n(&plan->function, NULL, __ATOMIC_RELEASE);
    return __atomic_load_n(&plan->failed, __ATOMIC_ACQUIRE);
}

unsigned calls_seen(void) {
    return __atomic_load_n(&plan->calls, __ATOMIC_ACQUIRE);
}

long blocks_in_use(void) {
    return __atomic_load_n(&blocks, __ATOMIC_RELAXED);
}

/* Whether this call has to fail; errno then says why. */
static int fails(const char* name) {
    const char* const function = plan == NULL ? NULL : __atomic_load_n(&plan->function, __ATOMIC_ACQUIRE);
    if (function == NULL || strcmp(function, name) != 0) {
        return 0;
    }
    const unsigned call = __atomic_add_fetch(&plan->calls, 1, __ATOMIC_RELAXED);
    if (call < plan->nth || (call > plan->nth && plan->for_good == 0)) {
        return 0;
    }
    __atomic_add_fetch(&plan->failed, 1, __ATOMIC_RELEASE);
    errno = plan->error;
    return 1;
}

/* The library's own `name` into the variable `real`. */
#define FIND(real, name) *(void**)&(real) = dlsym(RTLD_NEXT, name)

#define MAY_FAIL(type, failed, name, parameters, arguments)                                                            \
    type name parameters {                                                                                             \
        static __typeof__(name)* real;                                                                                 \
        if (real == NULL) {                                                                                            \
            FIND(real, #name);                                                                                         \
        }                                                                                                              \
        return fails(#name) ? (failed) : real arguments;                                                               \
    }

/* clang-format off: one line for each function */

MAY_FAIL(int, -1, socket, (int domain, int kind, int protocol), (domain, kind, protocol))
MAY_FAIL(int, -1, socketpair, (int domain, int kind, int protocol, int ends[2]), (domain, kind, protocol, ends))
MAY_FAIL(int, -1, bind, (int fd, __CONST_SOCKADDR_ARG address, socklen_t size), (fd, address, size))
MAY_FAIL(int, -1, listen, (int fd, int backlog), (fd, backlog))
MAY_FAIL(int, -1, accept4, (int fd, __SOCKADDR_ARG address, socklen_t* size, int flags), (fd, address, size, flags))
MAY_FAIL(int, -1, connect, (int fd, __CONST_SOCKADDR_ARG address, socklen_t size), (fd, address, size))
MAY_FAIL(int, -1, setsockopt, (int fd, int level, int option, const void* value, socklen_t size),
         (fd, level, option, value, size))
MAY_FAIL(int, -1, getsockopt, (int fd, int level, int option, void* value, socklen_t* size),
         (fd, level, option, value, size))
MAY_FAIL(ssize_t, -1, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags))
MAY_FAIL(ssize_t, -1, recv, (int fd, void* data, size_t size, int flags), (fd, data, size, flags))
MAY_FAIL(ssize_t, -1, sendmsg, (int fd, const struct msghdr* message, int flags), (fd, message, flags))
MAY_FAIL(ssize_t, -1, recvmsg, (int fd, struct msghdr* message, int flags), (fd, message, flags))
MAY_FAIL(int, -1, sendmmsg, (int fd, struct mmsghdr* messages, unsigned count, int flags), (fd, messages, count, flags))
MAY_FAIL(int, -1, poll, (struct pollfd * watched, nfds_t count, int timeout_ms), (watched, count, timeout_ms))
MAY_FAIL(int, -1, epoll_create, (int size), (size))
MAY_FAIL(int, -1, epoll_ctl, (int epoll, int what, int fd, struct epoll_event* event), (epoll, what, fd, event))
MAY_FAIL(int, -1, epoll_wait, (int epoll, struct epoll_event* events, int most, int timeout_ms),
         (epoll, events, most, timeout_ms))

MAY_FAIL(ssize_t, -1, read, (int fd, void* data, size_t size), (fd, data, size))
MAY_FAIL(ssize_t, -1, pread, (int fd, void* data, size_t size, off_t offset), (fd, data, size, offset))
MAY_FAIL(ssize_t, -1, write, (int fd, const void* data, size_t size), (fd, data, size))
MAY_FAIL(ssize_t, -1, splice, (int in, off_t* in_at, int out, off_t* out_at, size_t size, unsigned flags),
         (in, in_at, out, out_at, size, flags))
MAY_FAIL(int, -1, vdprintf, (int fd, const char* format, va_list arguments), (fd, format, arguments))
MAY_FAIL(int, -1, ftruncate, (int fd, off_t size), (fd, size))
MAY_FAIL(int, -1, fstat, (int fd, struct stat* status), (fd, status))
MAY_FAIL(int, -1, stat, (const char* path, struct stat* status), (path, status))
MAY_FAIL(int, -1, lstat, (const char* path, struct stat* status), (path, status))
MAY_FAIL(int, -1, chmod, (const char* path, mode_t mode), (path, mode))
MAY_FAIL(int, -1, mkdir, (const char* path, mode_t mode), (path, mode))
MAY_FAIL(int, -1, unlink, (const char* path), (path))
MAY_FAIL(int, -1, rename, (const char* from, const char* to), (from, to))
MAY_FAIL(int, -1, mkostemp, (char* path, int flags), (path, flags))
MAY_FAIL(int, -1, memfd_create, (const char* name, unsigned flags), (name, flags))
MAY_FAIL(int, -1, pipe2, (int ends[2], int flags), (ends, flags))
MAY_FAIL(int, -1, dup, (int fd), (fd))
MAY_FAIL(int, -1, dup2, (int fd, int number), (fd, number))
MAY_FAIL(int, -1, dup3, (int fd, int number, int flags), (fd, number, flags))
MAY_FAIL(int, -1, close_range, (unsigned first, unsigned last, int flags), (first, last, flags))
MAY_FAIL(FILE*, NULL, fopen, (const char* path, const char* mode), (path, mode))
MAY_FAIL(FILE*, NULL, fdopen, (int fd, const char* mode), (fd, mode))
MAY_FAIL(int, EOF, fflush, (FILE * stream), (stream))
MAY_FAIL(DIR*, NULL, opendir, (const char* path), (path))

MAY_FAIL(pid_t, -1, fork, (void), ())
MAY_FAIL(int, errno, pthread_create,
         (pthread_t * thread, const pthread_attr_t* attr, void* (*routine)(void*), void* argument),
         (thread, attr, routine, argument))
MAY_FAIL(int, -1, setrlimit, (__rlimit_resource_t which, const struct rlimit* limit), (which, limit))
MAY_FAIL(int, -1, setenv, (const char* name, const char* value, int replaces), (name, value, replaces))
MAY_FAIL(void*, NULL, dlopen, (const char* file, int mode), (file, mode))
MAY_FAIL(int, -1, msgget, (key_t key, int flags), (key, flags))
MAY_FAIL(ssize_t, -1, msgrcv, (int id, void* message, size_t size, long kind, int flags),
         (id, message, size, kind, flags))
MAY_FAIL(int, -1, msgsnd, (int id, const void* message, size_t size, int flags), (id, message, size, flags))
MAY_FAIL(int, -1, msgctl, (int id, int what, struct msqid_ds* status), (id, what, status))

MAY_FAIL(void*, MAP_FAILED, mmap, (void* at, size_t size, int protection, int flags, int fd, off_t offset),
         (at, size, protection, flags, fd, offset))
MAY_FAIL(char**, NULL, backtrace_symbols, (void* const* frames, int count), (frames, count))

/* clang-format on */

/* Before C23 the last of the arguments that may be there is passed on whether it is or not. */

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static int (*real)(const char*, int, ...);
    FIND(real, "open");
    return fails("open") ? -1 : real(path, flags, mode);
}

int fcntl(int fd, int what, ...) {
    va_list arguments;
    va_start(arguments, what);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    static int (*real)(int, int, ...);
    FIND(real, "fcntl");
    return fails("fcntl") ? -1 : real(fd, what, argument);
}

int ioctl(int fd, unsigned long what, ...) {
    va_list arguments;
    va_start(arguments, what);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    static int (*real)(int, unsigned long, ...);
    FIND(real, "ioctl");
    return fails("ioctl") ? -1 : real(fd, what, argument);
}

int dprintf(int fd, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    static int (*real)(int, const char*, va_list);
    FIND(real, "vdprintf");
    const int length = fails("dprintf") ? -1 : real(fd, format, arguments);
    va_end(arguments);
    return length;
}

long syscall(long number, ...) {
    va_list arguments;
    va_start(arguments, number);
    long values[6];
    for (int i = 0; i < 6; ++i) {
        values[i] = va_arg(arguments, long);
    }
    va_end(arguments);
    static long (*real)(long, ...);
    FIND(real, "syscall");
    const char* const name = number == SYS_execve ? "execve" : number == SYS_pidfd_open ? "pidfd_open" : "";
    return fails(name) ? -1 : real(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

/* As fork(2): no function of C can return twice into its caller. What its child does is counted with the rest. */
pid_t vfork(void) {
    static pid_t (*real)(void);
    FIND(real, "fork");
    return fails("vfork") ? -1 : real();
}

/* The number is free whatever this returns. */
int close(int fd) {
    static int (*real)(int);
    FIND(real, "close");
    const int closed = real(fd);
    return fails("close") ? -1 : closed;
}

int fclose(FILE* stream) {
    static int (*real)(FILE*);
    FIND(real, "fclose");
    const int closed = real(stream);
    return fails("fclose") ? EOF : closed;
}

/* What the stream was open on is closed whatever this returns. */
FILE* freopen(const char* path, const char* mode, FILE* stream) {
    static FILE* (*real)(const char*, const char*, FILE*);
    FIND(real, "freopen");
    if (!fails("freopen")) {
        return real(path, mode, stream);
    }
    const int error = errno;
    (void)real("", mode, stream); /* the name of no file */
    errno = error;
    return NULL;
}

/* Without a child there is none to wait for, so it is waited for first. Not asked to wait, the call does not fail. */
pid_t waitpid(pid_t pid, int* status, int options) {
    static pid_t (*real)(pid_t, int*, int);
    FIND(real, "waitpid");
    if ((options & WNOHANG) != 0 || !fails("waitpid")) {
        return real(pid, status, options);
    }
    if (errno == ECHILD) {
        (void)real(pid, NULL, options);
        errno = ECHILD;
    }
    return -1;
}

static void* counted(void* block) {
    __atomic_add_fetch(&blocks, block != NULL, __ATOMIC_RELAXED);
    return block;
}

void* malloc(size_t size) {
    static void* (*real)(size_t);
    if (real == NULL) {
        FIND(real, "malloc");
    }
    return fails("malloc") ? NULL : counted(real(size));
}

void* calloc(size_t count, size_t size) {
    static void* (*real)(size_t, size_t);
    if (real == NULL) {
        FIND(real, "calloc");
    }
    return fails("calloc") ? NULL : counted(real(count, size));
}

void* realloc(void* block, size_t size) {
    static void* (*real)(void*, size_t);
    if (real == NULL) {
        FIND(real, "realloc");
    }
    if (fails("realloc")) {
        return NULL;
    }
    return block == NULL ? counted(real(block, size)) : real(block, size);
}

void free(void* block) {
    static void (*real)(void*);
    if (real == NULL) {
        FIND(real, "free");
    }
    __atomic_sub_fetch(&blocks, block != NULL, __ATOMIC_RELAXED);
    real(block);
}
