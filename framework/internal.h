// What the framework's files share among themselves; nobody outside this folder includes it.
//
// Three kinds of failure, never mixed: misuse by our own program and exhausted resources abort (KS_REQUIRE), what the
// other side of a connection does ends that connection, everything else is a return code.
//
// No descriptor of ours is ever numbered 0, 1 or 2, whatever the process has closed: ks_stop() closes descriptor 0 by
// rule, a stray printf() must not land in a socket, and an entry with socket number 0 is ignored by the producer. Every
// descriptor that is made or received goes through above_stdio() for that.
#pragma once

#include "kservice.h"

#include <csignal>
#include <ctime>

// Aborts with the fixed line unless `condition` holds. `text` is the condition as the line shows it, given as a
// literal: a stringised condition would change with the formatter, and some of the texts are not what compiles here.
#define KS_REQUIRE(condition, text, ...)                                                                               \
    do {                                                                                                               \
        if (__builtin_expect(!(condition), 0)) {                                                                       \
            ks::abort_with(__func__, text, __VA_ARGS__);                                                               \
        }                                                                                                              \
    } while (0)

// The same for a routine whose line carries another function's name.
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

/// Takes over `fd` and returns the same file under a number of 3 or above. Keeps the close-on-exec flag as it is.
/// -1 is passed through; -1 also when no number is left, and `fd` is then closed.
int above_stdio(int fd);

/// Closes `*fd` unless it is negative, and sets it to -1. Keeps errno.
void close_and_clear(int32_t* fd);

/// Closes a descriptor that came from a stranger, or does nothing for -1. The file's own file system has a say in
/// close(2) (FUSE, a network share) and may never answer, and no signal ends that wait. So it is waited for on a thread
/// of its own, which nobody joins and which ends with the call; inline only when no thread can be made.
void close_foreign(int fd);

/// Sends or receives one whole directive without blocking; true = all 259 bytes went through.
bool send_directive(int sockfd, const directive& message);
bool receive_directive(int sockfd, directive* ret_message);

directive make_directive(uint8_t type);

/// Sends one data byte with the descriptor `fd` (borrowed; -1 sends the byte alone). True unless sendmsg(2) failed.
/// @param flags  MSG_DONTWAIT or 0.
bool send_descriptor(int sockfd, int fd, int flags);

/// How receive_descriptor() ended.
enum class received {
    descriptor, ///< *ret_fd is owned by the receiver, close-on-exec, numbered 3 or above
    nothing,    ///< would block
    failed      ///< a data byte without a descriptor, end of stream, or error
};

/// Receives one data byte and its descriptor. However many descriptors a message brings, at most one is kept.
/// @param flags  MSG_DONTWAIT or 0.
received receive_descriptor(int sockfd, int flags, int* ret_fd);

/// A process-independent clock in milliseconds.
int64_t now_ms();

// ---- io.cpp

/// Creates the memory file of `io` when there is none.
void io_shm(ks_io* io);

/// Maps the whole file, as ks_io_sync(), but reports a file that cannot be mapped instead of aborting: the way to take
/// a stranger's file. False leaves `io` unmapped.
bool io_try_sync(ks_io* io);

/// Closes and clears everything that `io` owns, as a failed call leaves it: memfd, sockfd, passfd -1, nothing mapped.
void io_reset(ks_io* io);

/// Whether a received descriptor is a memory file that can serve: of memfd_create(2) or on a tmpfs (it has seals), open
/// for reading and writing, and not sealed against what the framework has to do with it. Where the file can still be
/// sealed, seals it against further seals, so that the answer stays true. Asks nothing of any other file's file system.
bool is_memory_file(int fd);

// ---- service.cpp

constexpr size_t kSocketPathSize = 64; // formatted into 64 bytes: at most 63 characters

// The "/var/run/ks/%X.sock" path of an ordinary name, or false when the digest failed.
bool hashed_socket_path(const char* name, char* ret_path, size_t size);

// A handle with what the public record has no field for. ks_handle is its first member, so the two pointers convert.
struct service {
    enum class phase { idle, starting, serving };

    ks_handle handle;

    // Guards the fields up to `users`. Held for a few instructions only, with all signals blocked: a handler on the
    // starting thread may call ks_stop() itself.
    pthread_mutex_t lock;
    pthread_cond_t changed;
    phase state;
    uint64_t generation;     // counts starts, so that a waiting ks_stop() does not mistake the next run for its own
    bool listening;          // the producer's listening socket is open and may be shut down
    bool stop_requested;     // somebody has asked this run to stop
    bool published;          // the socket's file is there and ours to remove
    bool join_claimed;       // KS_STANDALONE: somebody joins the producer's thread and frees the table
    sigset_t thread_mask;    // the signal mask of ks_start()'s caller, for the threads of the run
    unsigned users;          // threads inside ks_start() and ks_stop(); ks_free() waits for them
    uint8_t pause_requested; // what ks_pause() and ks_resume() last said; ks_stop() overwrites `paused` only

    // The producer's alone. Descriptor of the caller that each consumer has been handed and has not echoed yet, or -1.
    int32_t* in_transit;

    // What each consumer thread is started with.
    struct consumer_start {
        service* self;
        ks_worker* worker;
    } * starts;
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

// Makes consumer `index`'s link and starts its thread or process (which does not return from here).
void start_consumer(service* self, size_t index);

// ---- producer.cpp

// Publishes the socket and makes the producer's epoll.
void open_producer(service* self);

// Registers consumer `index`'s link in the producer's epoll.
void watch_consumer(service* self, size_t index);

// The producer loop. Returns when the service stops or the loop's own sockets fail; nobody waits in the list then.
void run_producer(service* self);

// ---- consumer.cpp

// The consumer loop. Returns when the worker was told to stop or lost its link.
void run_consumer(ks_worker* worker);

} // namespace ks
