// Shared by the framework's files; never included from outside this folder.
//
// Three distinct kinds of failure: misuse by our own program and exhausted resources abort (KS_REQUIRE), whatever a
// peer does ends its connection, everything else is a return code.
//
// No descriptor of ours is ever numbered 0, 1 or 2, even if the process has closed them: ks_stop() always closes
// descriptor 0, a stray printf() must not land in a socket, and the producer ignores an entry with socket number 0. So
// every descriptor that is made or received goes through above_stdio().
#pragma once

#include "kservice.h"

#include <csignal>
#include <ctime>
#include <span>

/// Aborts with the fixed line unless `condition` holds. `text` is the condition as the line shows it, a literal because
/// a stringised condition would change with the formatter, and some of the texts would not compile here.
#define KS_REQUIRE(condition, text, ...)                                                                               \
    do {                                                                                                               \
        if (__builtin_expect(!(condition), 0)) {                                                                       \
            ks::abort_with(__func__, text, __VA_ARGS__);                                                               \
        }                                                                                                              \
    } while (0)

/// The same for a function whose line carries another function's name.
#define KS_REQUIRE_IN(function, condition, text, ...)                                                                  \
    do {                                                                                                               \
        if (__builtin_expect(!(condition), 0)) {                                                                       \
            ks::abort_with(function, text, __VA_ARGS__);                                                               \
        }                                                                                                              \
    } while (0)

#define KS_IO_TEXT "io && (*(u_int32_t*) io == KS_IO_MAGIC)"

namespace ks {

/// Prints "[ABORT] @<function>() <message>: `<text>'" and a newline to standard error in one write, then aborts.
[[noreturn, gnu::cold, gnu::format(printf, 3, 4)]] void abort_with(const char* function, const char* text,
                                                                   const char* fmt, ...);

inline bool is_io(const ks_io* io) {
    return io != nullptr && io->magic == KS_IO_MAGIC;
}

// ---- descriptors.cpp

/// Takes over `fd` and returns the same file under a number of 3 or above. Keeps the close-on-exec flag.
/// -1 is passed through; also -1 when no number is left, and `fd` is then closed.
int above_stdio(int fd);

/// Closes `*fd` unless it is negative, and sets it to -1. Keeps errno.
void close_and_clear(int32_t* fd);

/// Closes a descriptor received from a peer; no-op for -1. The file's file system (FUSE, a network share) may block
/// close(2) for ever, uninterruptibly. So that happens on a detached thread of its own; inline only for what has none,
/// a memory file or a local socket, and when no thread can be made.
void close_foreign(int fd);

/// Takes the closing of descriptor 0 over from close_foreign(): ks_stop() closes it as well, and whoever comes second
/// could close a new file. @return Whether there was one to take over.
bool claim_zero();

/// Sends or receives one whole directive without blocking; true = all 259 bytes went through.
bool send_directive(int sockfd, const directive& message);
bool receive_directive(int sockfd, directive* ret_message);

directive make_directive(uint8_t type);

/// Sends one data byte with the descriptor `fd` (borrowed; -1 sends the byte alone). True unless sendmsg(2) failed.
/// @param flags  MSG_DONTWAIT or 0.
bool send_descriptor(int sockfd, int fd, int flags);

/// Sends a directive and after it up to two descriptors, each in a message of its own, with one system call and without
/// blocking.
/// @return How many of the messages were sent, the directive included.
size_t send_with_descriptors(int sockfd, const directive& message, std::span<const int> fds);

/// What receiving a descriptor brought.
struct arrival {
    enum {
        nothing,    ///< would block
        descriptor, ///< `fd` is owned by the receiver, close-on-exec, numbered 3 or above
        failed      ///< a data byte without a descriptor, end of file, or error
    } how;
    int fd; ///< negative without a descriptor
};

/// Receives one data byte and its descriptor. However many descriptors a message brings, at most one is kept.
/// @param flags  MSG_DONTWAIT or 0.
arrival receive_descriptor(int sockfd, int flags);

/// Receives what is available of a directive and the descriptor message after it, with one system call. A descriptor
/// sent with the directive itself is closed.
/// @param flags     MSG_DONTWAIT or 0.
/// @param ret_came  As receive_descriptor(); also `nothing` if only the directive was there.
/// @return The bytes of the directive, at most its size, or as recvmsg(2).
ssize_t receive_with_descriptor(int sockfd, int flags, directive* ret_message, arrival* ret_came);

/// A process-independent clock in milliseconds.
int64_t now_ms();

/// Milliseconds until the deadline `give_up_at` (now_ms()), for poll(2) and epoll_wait(2): 0 once it has passed.
int wait_time(int64_t give_up_at);

// ---- io.cpp

/// Creates the memory file of `io` if there is none.
void io_shm(ks_io* io);

/// Maps the whole file, as ks_io_sync(), but reports a file that cannot be mapped instead of aborting: for an untrusted
/// peer's file. False leaves `io` unmapped.
bool io_try_sync(ks_io* io);

/// Closes and clears everything that `io` owns, as a failed call leaves it: memfd, sockfd, passfd -1, nothing mapped.
void io_reset(ks_io* io);

/// Whether a received descriptor is a usable memory file: from memfd_create(2) or on a tmpfs (it has seals), open for
/// reading and writing, and not sealed against what the framework has to do with it. If it can still be sealed, seals
/// it against further seals, so that the answer stays true. Makes no request to any other file's file system.
bool is_memory_file(int fd);

// ---- service.cpp

constexpr size_t kSocketPathSize = 64; ///< formatted into 64 bytes: at most 63 characters

/// The "/var/run/ks/%X.sock" path of an ordinary name, or false when the digest failed.
bool hashed_socket_path(const char* name, char* ret_path, size_t size);

/// A handle with the private fields. ks_handle is its first member, so pointers to the two convert.
struct service {
    enum class phase {
        idle,     ///< not started, or the run is over; no table. The initial value
        starting, ///< inside ks_start()
        serving
    };

    /// What a consumer has in addition to its table entry.
    struct consumer {
        service* self; ///< with `worker`: the argument of the consumer's thread
        ks_worker* worker;
        int32_t in_transit; ///< producer only: descriptor of a caller handed over but not yet echoed, or -1
    };

    ks_handle handle;
    pid_t owner; ///< the process that last called ks_start(), 0 before; accessed atomically. In a process worker every
                 ///< service is a copy; its run, lock and waiters belong to the parent

    /// Guards the fields up to `users`. Held for a few instructions only, with all signals blocked, and never around
    /// malloc() or free(): a signal handler may call ks_stop() on any thread.
    pthread_mutex_t lock;
    pthread_cond_t changed;
    phase state;
    uint64_t generation; ///< counts starts, so that a waiting ks_stop() does not mistake the next run for its own
    bool listening;      ///< the producer's listening socket is open and may be shut down
    bool stop_requested; ///< this run has been asked to stop
    bool published;      ///< this run's socket file exists and is ours to remove
    bool joinable;       ///< KS_STANDALONE: the thread `producer` has not been joined yet
    pthread_t producer;
    size_t running;       ///< consumer threads of the run that have not ended
    sigset_t thread_mask; ///< the signal mask of ks_start()'s caller, for the threads of the run
    unsigned users;       ///< threads inside ks_start() and ks_stop(); ks_free() waits for them

    uint8_t pause_requested; ///< what ks_pause() and ks_resume() last said; ks_stop() overwrites `paused` only
    consumer* consumers;     ///< one per consumer, made and freed with the table
    size_t* waiting; ///< callers that wait for a consumer; the producer writes it, atomically, and process workers
                     ///< share the memory
};

inline service* service_of(ks_handle* handle) {
    return reinterpret_cast<service*>(handle);
}

inline bool is_handle(const ks_handle* handle) {
    return handle != nullptr && handle->magic == KS_HANDLE_MAGIC;
}

inline bool is_stopping(const ks_handle* handle) {
    return __atomic_load_n(&handle->stopping, __ATOMIC_ACQUIRE) != 0;
}

/// Blocks all signals in this thread for its lifetime.
class signals_blocked {
public:
    signals_blocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~signals_blocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    signals_blocked(const signals_blocked&) = delete;
    signals_blocked& operator=(const signals_blocked&) = delete;

    /// The previous mask.
    [[nodiscard]] const sigset_t& before() const { return before_; }

private:
    sigset_t before_;
};

/// Holds a service's lock with all signals blocked, so that a signal handler on this thread never finds it taken.
class locked {
public:
    explicit locked(service* self) : self_(self) { pthread_mutex_lock(&self_->lock); }
    ~locked() { pthread_mutex_unlock(&self_->lock); }
    locked(const locked&) = delete;
    locked& operator=(const locked&) = delete;

    /// The previous mask.
    [[nodiscard]] const sigset_t& mask_before() const { return quiet_.before(); }

    void wait() { pthread_cond_wait(&self_->changed, &self_->lock); }
    void wake_all() { pthread_cond_broadcast(&self_->changed); }

private:
    signals_blocked quiet_; ///< from before the lock is taken until after it is released
    service* self_;
};

// ---- worker.cpp

/// Marks a thread on which the end of a service depends. A thread can carry several: a handler or callback running
/// inside one service may start or stop another.
struct mark {
    const service* self;
    const mark* outer; ///< the one set before, or nullptr
};

/// Marks this thread with `self`; `here` is borrowed until disengage() removes the newest mark. A mark that is never
/// removed must live as long as the thread.
void engage(mark* here, const service* self);
void disengage();

/// Whether this thread carries a mark of `self`: ks_stop() must not wait on it.
bool is_engaged(const service* self);

class engagement {
public:
    explicit engagement(const service* self) { engage(&here_, self); }
    ~engagement() { disengage(); }
    engagement(const engagement&) = delete;
    engagement& operator=(const engagement&) = delete;

private:
    mark here_;
};

/// Starts a thread of a service with all signals blocked, see engage_thread(). False = it cannot be made.
bool start_thread(pthread_t* ret_thread, void* (*routine)(void*), void* argument);

/// Called first in a thread of the service, so that no signal handler runs on it before it is marked. The mark stays
/// for the thread's lifetime.
void engage_thread(const service* self);

/// Makes consumer `index`'s link and starts its thread or process (which does not return from here).
void start_consumer(service* self, size_t index);

/// Fills the table, and starts and watches every consumer.
void start_all_consumers(service* self);

// ---- producer.cpp

/// Publishes the socket and makes the producer's epoll.
void open_producer(service* self);

/// Registers consumer `index`'s link in the producer's epoll.
void watch_consumer(service* self, size_t index);

/// The producer loop. Returns when the service stops or the loop's own sockets fail; the waiting queue is then empty.
void run_producer(service* self);

// ---- consumer.cpp

/// The consumer loop. Returns when the worker was told to stop or lost its link.
/// @param waiting  How many callers wait for a consumer; others change it meanwhile.
void run_consumer(ks_worker* worker, const size_t* waiting);

} // namespace ks
