/* kservice: named local services over AF_UNIX sockets, with requests and replies in shared memory.
 *
 * This is the library's interface, for C11 and C++; kservice.hpp wraps it for C++17. A service in a dozen lines:
 *
 *     static int serve(const char* command, ks_io* io, int fd) {
 *         (void)command; (void)fd;
 *         if (ks_io_alive(io)) {
 *             ks_io_realloc(io, 0);
 *             ks_io_printf(io, "pong");
 *             ks_reply(io);
 *         }
 *         ks_io_free(io);
 *         return 0;
 *     }
 *     unsigned mode = KS_STANDALONE | KS_PTHREAD_MODE;
 *     ks_handle* service = ks_create("my-service", mode, 2, serve);
 *     ks_start(service);
 *
 * and its caller:
 *
 *     void* reply = NULL;
 *     size_t size = 0;
 *     unsigned code = ks_ez_call("my-service", "ping", NULL, 0,
 *                                &reply, &size, 5, -1);
 *
 * There are three distinct kinds of errors. Misuse by the program itself (a foreign pointer, a wrong mode) and
 * exhausted resources print one line "[ABORT] @<function>() <message>: `<condition>'" to standard error and abort().
 * Whatever a peer does costs only its own connection. Everything else is a result code.
 *
 * "KEPT:" marks behaviour that looks wrong but is deliberate, because programs rely on it.
 *
 * What travels on the sockets, byte by byte, is described in ks-protocol(7).
 */
#ifndef KSERVICE_H
#define KSERVICE_H

#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KS_API __attribute__((visibility("default")))
#define KS_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#else
#define KS_API
#define KS_PRINTF(format_index, first_argument)
#endif

/* The sections below and the comment above are also manual pages; each section's title names its page. */

/* ---- Constants: ks_constants(3) -------------------------------------------------------------------------------- */

#define KS_IO_MAGIC 0x6B494F2DU     /**< First field of a live ks_io; "-OIk" in little-endian memory. */
#define KS_HANDLE_MAGIC 0x6B53562DU /**< First field of a live ks_handle; "-VSk". */
#define KS_EPOLL_MAGIC 0x6B45562DU  /**< First field of a live ks_epoll; "-VEk". */

#define MAXIMUM_NAME_SIZE 64 /**< Longest service name that ks_create() takes, in characters. */
#define MAX_SIGNAL_SIZE 32   /**< Slots of signal_handler; signals 1 to 31 can be routed. */

/** Interpreters and shells. Compiled by ks_init() as a POSIX extended regular expression.
 *  KEPT: "pfsh" stands twice, and no operation matches anything against it. */
#define BLOCKED_PROGRAM_LIST                                                                                           \
    "(\\b|/)(ash|bash|csh|jsh|ksh|ksh93|pfcsh|pfksh|pfsh|pfsh|rbash|rksh93|sh|tcsh|zsh|busybox|php|python.*)$"

/** Mode bits of ks_create(). Valid masks: one worker kind, with or without KS_STANDALONE (2, 3, 4, 5). */
enum {
    KS_STANDALONE = 1,   /**< ks_start() returns at once; the producer runs in a thread of its own. */
    KS_PROCESS_MODE = 2, /**< Each consumer worker is a forked child process. */
    KS_PTHREAD_MODE = 4  /**< Each consumer worker is a thread. */
};

/** Result codes of the calling side. */
enum {
    KS_OK = 0,           /**< Request sent, or reply received. */
    KS_TIMEOUT = 1,      /**< Nothing happened within the time allowed. */
    KS_NO_SERVICE = 2,   /**< The service's socket could not be connected. */
    KS_PAUSED = 3,       /**< The service is paused. */
    KS_REFUSED = 4,      /**< Directive 5 was received; no service of this library sends it. */
    KS_DISCONNECTED = 5, /**< The connection failed: error, hang-up, or a directive that was not 259 bytes. From
                              ks_ez_call() also: the request could not be stored, and nothing was sent; or
                              the reply could not be read. */
    KS_BUSY = 6,         /**< The service's waiting queue is full. */
    KS_BAD_ARGUMENT = 7  /**< Service name NULL or over 64 characters, or command NULL or over 256 characters. */
};

/** Types of a directive. */
enum {
    KS_DIRECTIVE_READY = 1,    /**< consumer -> producer: idle again; data = worker index (size_t). */
    KS_DIRECTIVE_BUSY = 2,     /**< producer -> caller: the waiting queue is full. */
    KS_DIRECTIVE_STOP = 3,     /**< ks_stop() -> consumer: leave the loop. */
    KS_DIRECTIVE_PAUSED = 4,   /**< producer -> caller: the service is paused. */
    KS_DIRECTIVE_REFUSED = 5,  /**< Callers understand it; never sent. */
    KS_DIRECTIVE_TRANSFER = 6, /**< producer -> consumer and echoed back: data = descriptor number (int32_t). */
    KS_DIRECTIVE_ACCEPTED = 7, /**< consumer -> caller: send the request. */
    KS_DIRECTIVE_REQUEST = 8,  /**< caller -> consumer: data = command name; descriptors follow. */
    KS_DIRECTIVE_REPLY = 9     /**< consumer -> caller: the reply is in the memory file. */
};

/** Bit 0 of directive.flags: an extra descriptor follows the memory file's. KS_DIRECTIVE_REQUEST only. */
enum { KS_DIRECTIVE_HAS_FD = 1 };

/** Types of an event-queue entry. */
enum {
    LISTEN_SOCK = 1,   /**< The listening socket. */
    CONSUMER_SOCK = 2, /**< The producer's end of a consumer link. */
    CLIENT_SOCK = 3    /**< An accepted caller that waits for a consumer. */
};

/* ---- Records: ks_records(3) ------------------------------------------------------------------------------------ */

/** The fixed-size message on all the framework's sockets: always sent and read whole, 259 bytes, no padding.
 *  Numbers in `data` are in host byte order and unaligned: memcpy() them. */
typedef struct directive {
    uint8_t type;   /**< KS_DIRECTIVE_... */
    uint8_t flags;  /**< KS_DIRECTIVE_HAS_FD or 0. */
    char data[257]; /**< By type; zero-filled otherwise. A command has at most 256 characters and a NUL. */
} directive;

/** Peer credentials in SO_PEERCRED order, see unix(7). */
typedef struct ks_cred {
    int32_t pid;
    uint32_t uid;
    uint32_t gid;
} ks_cred;

/** One message: the memory file that holds a request or its reply, and the socket it travels with.
 *  One owner at a time, no lock. Made by ks_io_create(), ended by ks_io_free(), which closes what is owned. */
typedef struct ks_io {
    uint32_t magic;     /**< KS_IO_MAGIC while valid. */
    int32_t memfd;      /**< Owned. Memory file; -1 until an operation first needs it. */
    int32_t sockfd;     /**< Owned. Request socket (caller) or the caller's connection (service); -1 = none. */
    int32_t passfd;     /**< Borrowed: the caller closes it. Extra descriptor to hand over; -1 = none. */
    char command[257];  /**< NUL-terminated command name, at most 256 characters. Unset until a request is made. */
    void* userdata;     /**< The owner's, see ks_io_set(). Never read by the framework. */
    void* shared_data;  /**< Owned mapping of the whole memory file; NULL = not mapped. */
    size_t shared_size; /**< Bytes mapped at shared_data; 0 = not mapped. */
    ks_cred cred;       /**< The caller's credentials on the service's side; all 0 on the caller's. */
    int32_t mapped_fd;  /**< Internal: memfd when shared_data was mapped. Another file under the same
                             number goes unnoticed while its size is the same. */
} ks_io;

/** What a consumer worker runs for each request. It owns `io` and must ks_io_free() it; `fd` is the caller's extra
 *  descriptor (owned by the callback) or -1. The return value is ignored. It must not ks_stop() its own service. */
typedef int (*ks_exec)(const char* command, ks_io* io, int fd);

/** Runs in each consumer worker at its start or end. */
typedef void (*ks_worker_callback)(void* argument);

/** What an epoll registration of the producer points at. */
typedef struct ks_queue {
    uint32_t type;         /**< LISTEN_SOCK, CONSUMER_SOCK or CLIENT_SOCK. */
    int32_t sockfd;        /**< The registered socket. KEPT: the producer ignores an entry whose number is 0. */
    struct ks_queue* next; /**< Waiting list, in arrival order; the producer's entry is its head. */
    struct ks_queue* prev;
} ks_queue;

/** One entry of a service's worker table. */
typedef struct ks_worker {
    uint8_t idle;      /**< 1 = free to take a caller, 0 = busy. Consumers only; the producer's alone. */
    int32_t pollfd;    /**< Owned. The worker's epoll; -1 = closed. */
    int32_t sockfd[2]; /**< Owned. [0] the consumer's end of the link, [1] the producer's; for the producer entry [1]
                            is the listening socket. */
    size_t index;      /**< Position in the table. */
    union {
        pthread_t tid;
        pid_t pid;
    } id;           /**< The thread or process that runs this worker, by flags. */
    uint32_t flags; /**< KS_PTHREAD_MODE or KS_PROCESS_MODE, as the worker runs (consumers: the handle's mode). */
    ks_exec exec;
    ks_worker_callback init;
    void* init_argument;
    ks_worker_callback fini;
    void* fini_argument;
    ks_queue queue;
} ks_worker;

/** A named service. Made by ks_create(), ended by ks_free(). */
typedef struct ks_handle {
    uint32_t magic;      /**< KS_HANDLE_MAGIC while valid. */
    uint8_t paused;      /**< 1 = callers are rejected. Plain byte, accessed atomically. */
    uint8_t stopping;    /**< 1 = set by ks_stop(); the producer leaves its loop. Plain byte, accessed atomically. */
    char sockfile[65];   /**< Path of the socket, at most 63 characters. */
    char name[65];       /**< The service's name, its first 63 characters. */
    uint32_t mode;       /**< Mask of mode bits. */
    size_t service_size; /**< Number of consumer workers. */
    ks_exec exec;
    ks_worker_callback init;
    void* init_argument;
    ks_worker_callback fini;
    void* fini_argument;
    ks_worker* worker; /**< Owned. service_size + 1 entries, the last is the producer; NULL until started. */
} ks_handle;

/** A caller's set of requests in flight. */
typedef struct ks_epoll {
    uint32_t magic; /**< KS_EPOLL_MAGIC while valid. */
    int32_t fd;     /**< Owned. epoll(7) descriptor; each event's data is the ks_io it belongs to. */
} ks_epoll;

/** State of a SHA-1 computation (FIPS 180-1). */
typedef struct SHA1Context {
    uint32_t digest[5];  /**< Chaining words; after SHA1Result() the digest, most significant word first. */
    uint32_t length_low; /**< Message length in bits, low word. */
    uint32_t length_high;
    uint8_t block[64];   /**< The block being filled. */
    int32_t block_index; /**< Next free byte of block. */
    int32_t computed;    /**< 1 once the digest is final. */
    int32_t corrupted;   /**< 1 after too long an input, or input after the digest was final. */
} SHA1Context;

/* ---- Message objects: ks_io(3) --------------------------------------------------------------------------------- */
/* "Checked" operations abort on a NULL or foreign pointer. "Lazy" ones create the memory file (memfd_create(2)) when
 * there is none. The memory file's offset belongs to its open file description, which both processes share. */

/** @return A new object without memory file or socket. Aborts when memory runs out. The caller owns it. */
KS_API ks_io* ks_io_create(void);
/** Closes sockfd and memfd, unmaps, frees. passfd stays open. Checked. */
KS_API void ks_io_free(ks_io* io);
/** @return The memory file's size in bytes by fstat(2), 0 without one. KEPT: not checked. */
KS_API size_t ks_io_size(ks_io* io);
/** Makes the file `size` bytes long, moves its offset to the end and maps it. Size 0 leaves it unmapped.
 *  Checked, lazy. Aborts when the program's own file cannot be resized or mapped; if that happens to a file that a
 *  caller passed, the caller's connection ends instead, and the object continues with a private file. */
KS_API void ks_io_realloc(ks_io* io, size_t size);
/** Maps the whole file as it is now, with the offset at its end. No-op without a memory file. Not checked. */
KS_API void ks_io_sync(ks_io* io);
/** Syncs. Checked.
 *  @param size  Receives the bytes mapped; may be NULL.
 *  @return The mapping, which is not NUL-terminated, or NULL when the file is empty or absent. It stays owned by `io`
 *  and is valid until the next operation that maps. The peer can truncate the file, and access then raises SIGBUS:
 *  to read what an untrusted peer sent, pread(2) from memfd instead. */
KS_API void* ks_io_read(ks_io* io, size_t* size);
/** write(2) at the file's offset; does not remap. Checked (KEPT: with the wording of ks_io_read()), lazy.
 *  @return As write(2). */
KS_API ssize_t ks_io_write(ks_io* io, const void* buf, size_t len);
/** splice(2) of up to `len` bytes from the pipe `fdin`, moving, without blocking. Checked (KEPT: likewise), lazy.
 *  @return As splice(2). */
KS_API ssize_t ks_io_splice(ks_io* io, int fdin, size_t len);
/** Formatted write at the file's offset. @return As vdprintf(3). Checked, lazy. */
KS_API int ks_io_printf(ks_io* io, const char* fmt, ...) KS_PRINTF(2, 3);
/** Attaches the owner's pointer. Checked. */
KS_API void ks_io_set(ks_io* io, void* p);
/** @return What ks_io_set() attached, or NULL. Checked. */
KS_API void* ks_io_get(ks_io* io);
/** @return The caller's pid (0 on the caller's own side). Checked. */
KS_API pid_t ks_io_pid(ks_io* io);
/** @return The caller's user id. Checked. */
KS_API uid_t ks_io_uid(ks_io* io);
/** @return The caller's group id. Checked. */
KS_API gid_t ks_io_gid(ks_io* io);
/** @return 1 while the caller waits for its reply, 0 once it is gone; always 1 when the object's pid is 0. Checked. */
KS_API uint32_t ks_io_alive(ks_io* io);
/** @return memfd, still owned by `io`. Lazy, not checked. */
KS_API int ks_io_fileno(ks_io* io);
/** dup(2), dup2(2), dup3(2) of memfd; the caller owns the result. Lazy, not checked. */
KS_API int ks_io_dup(ks_io* io);
KS_API int ks_io_dup2(ks_io* io, int newfd);
KS_API int ks_io_dup3(ks_io* io, int newfd, int flags);
/** Opens an independent stream on the memory file. @return As fopen(3); the caller closes it. Lazy, not checked. */
KS_API FILE* ks_io_fopen(ks_io* io, const char* mode);
/** Points `stream` at the memory file. @return As freopen(3). Lazy, not checked. */
KS_API FILE* ks_io_freopen(ks_io* io, const char* mode, FILE* stream);
/** Writer callback for JSON output, as ks_io_write().
 *  @return 0 when all `len` bytes were written, negative otherwise. */
KS_API int ks_json_write_io(const void* data, size_t len, ks_io* io);

/* ---- Services: ks_service(3) ----------------------------------------------------------------------------------- */

/** Names a service; nothing is published yet.
 *  @param name     Up to 64 characters. "@/path" is published at that path (its first 63 characters), any other name at
 *                  "/var/run/ks/<first word of its SHA-1, upper-case hexadecimal>.sock".
 *  @param mode     KS_PROCESS_MODE or KS_PTHREAD_MODE, optionally with KS_STANDALONE.
 *  @param workers  Number of consumer workers, at least 1.
 *  @param exec     Serves the requests; called by up to `workers` workers at once.
 *  @return The handle, owned by the caller until ks_free(). Aborts on bad arguments. */
KS_API ks_handle* ks_create(const char* name, unsigned mode, size_t workers, ks_exec exec);
/** Sets what every consumer worker runs first. Before ks_start(). Aborts on a foreign handle. */
KS_API void ks_worker_init(ks_handle* handle, ks_worker_callback callback, void* argument);
/** Sets what every consumer worker runs last. Before ks_start(). Aborts on a foreign handle. */
KS_API void ks_worker_fini(ks_handle* handle, ks_worker_callback callback, void* argument);
/** Publishes the service and serves. With KS_STANDALONE returns once it is up; otherwise serves in the calling thread
 *  and returns after ks_stop(). Ignores SIGPIPE and SIGXFSZ for the process. Aborts if the service is already
 *  running, and when a socket, thread or process cannot be made. */
KS_API void ks_start(ks_handle* handle);
/** Rejects new callers; those already waiting keep their place. Any thread. */
KS_API void ks_pause(ks_handle* handle);
/** Accepts callers again. Any thread. */
KS_API void ks_resume(ks_handle* handle);
/** Removes the socket, ends the workers after their current request and waits for them. No-op on a service that is
 *  not started, and in a process worker. Any thread but the service's own workers; also while ks_start() is still
 *  running, and repeatedly. Does not touch the handle once ks_start() may have returned because of it.
 *  May be called in a signal handler, whatever it interrupted; inside ks_start(), or in a thread of the service, it
 *  then only requests the stop. (It deadlocks if a current request needs a lock held by the interrupted code, such as
 *  malloc()'s, or waits for the interrupted thread.)
 *  KEPT: also closes descriptor 0, as the producer's table entry never had a first socket. */
KS_API void ks_stop(ks_handle* handle);
/** ks_stop(), then frees the handle. No other thread may still use the handle; a ks_start() that serves in another
 *  thread has returned, or is past its last use of the handle, before it is freed. */
KS_API void ks_free(ks_handle* handle);
/** Run when the library is loaded: compiles BLOCKED_PROGRAM_LIST. Calling it again does nothing. */
KS_API void ks_init(void);
/** Run when the library is unloaded: frees what ks_init() made. */
KS_API void ks_fini(void);

/* ---- Calls: ks_call(3) ----------------------------------------------------------------------------------------- */

/** @return An empty set of requests, owned by the caller until ks_epoll_free(). Aborts when it cannot be made. */
KS_API ks_epoll* ks_epoll_create(void);
/** Connects to service `name` and puts the request into the set; it is sent when the service invites it.
 *  @param io      The request; borrowed until ks_epoll_perform() returns it or ks_epoll_cancel().
 *  @param passfd  Borrowed extra descriptor to hand over, or -1; kept open until the request has been sent.
 *  @return KS_OK, KS_BAD_ARGUMENT, KS_NO_SERVICE, or KS_TIMEOUT if the service's backlog stays full for 5 seconds;
 *  after the last two the unconnected socket stays in io->sockfd. Checks both. */
KS_API unsigned ks_epoll_call(ks_epoll* epoll, const char* name, const char* command, ks_io* io, int passfd);
/** Waits for one event and acts on it. Checked.
 *  @param timeout_ms  Milliseconds; restarted by a directive of an unknown type.
 *  @param status      Receives the result code; may be NULL.
 *  @return The object whose request ended: KS_OK with its reply mapped, any other code with the object emptied. NULL
 *  if none did: KS_OK = a request was sent, KS_TIMEOUT = nothing happened in that time. */
KS_API ks_io* ks_epoll_perform(ks_epoll* epoll, unsigned timeout_ms, unsigned* status);
/** Takes a request out of the set and ends its connection. Checks both. */
KS_API void ks_epoll_cancel(ks_epoll* epoll, ks_io* io);
/** Frees the set; the requests in it remain their owners'. Checked. */
KS_API void ks_epoll_free(ks_epoll* epoll);
/** Sends one request and waits for its reply.
 *  @param timeout_s  Seconds, raised to 5 if less; includes connecting. KEPT: the budget shrinks faster than the clock
 *                    if the request first waits for a worker, and a directive of an unknown type restarts the wait.
 *  @param passfd     Borrowed descriptor to hand to the service, or -1.
 *  @return KS_OK and the reply in `io` (read it with ks_io_read()), else a result code and `io` emptied.
 *  Any thread may call; two threads never share one `io`. */
KS_API unsigned ks_call(const char* name, const char* command, ks_io* io, unsigned timeout_s, int passfd);
/** ks_call() between buffers. A request that cannot be stored whole is not sent.
 *  @param recv   NULL, or points at a NULL pointer that receives a malloc()ed reply, not NUL-terminated; the caller
 *                frees it.
 *  @param rsize  Receives the reply's size in bytes; may be NULL.
 *  @return As ks_call(), and KS_DISCONNECTED when the request could not be stored (out of memory, RLIMIT_FSIZE), or the
 *  reply not be read.
 *  Aborts when `data` is NULL with a size, or *recv is not NULL. */
KS_API unsigned ks_ez_call(const char* name, const char* command, const void* data, size_t dsize, void** recv,
                           size_t* rsize, unsigned timeout_s, int passfd);
/** Service side: tells the caller that its reply is complete, and shuts the connection down. Checked. */
KS_API void ks_reply(ks_io* io);

/* ---- Signals and crash reports: ks_signal(3) ------------------------------------------------------------------- */

/** Called with the number of a routed signal. */
typedef void (*ks_signal_callback)(int signum);

/** Callbacks by signal number; NULL = none. */
extern KS_API ks_signal_callback signal_handler[MAX_SIGNAL_SIZE];

/** Routes signal `signum` (1 to 31, else aborts) to `callback`, or back to its default action when NULL. */
KS_API void ks_signal(int signum, ks_signal_callback callback);
/** The installed disposition: runs the table's callback for `sig`, if any. */
KS_API void ks_signal_handler(int sig);
/** Installs the crash reporter for SIGABRT, SIGBUS, SIGFPE and SIGSEGV, and makes every routed signal one-shot. */
KS_API void ks_backtrace(void);
/** The crash reporter: writes the numbered stack to the kernel log and ends the process with status 1. What
 *  cannot be had of the stack when resources are exhausted is missing there; without a memory file there is none. */
KS_API void _ks_backtrace(int sig); /* NOLINT(clang-diagnostic-reserved-identifier): the callers' name for it */

/* ---- Helpers: ks_helpers(3) ------------------------------------------------------------------------------------ */

/** KEPT: writes the descriptor's status flags back with 1 added, and does not set close-on-exec; process workers close
 *  by number what they must not inherit. @return 1, or 0 when either fcntl(2) fails. */
KS_API uint32_t set_fd_cloexec(int fd);

/** Starts a new digest. The context may be new or used. */
KS_API void SHA1Reset(SHA1Context* context);
/** Appends `length` bytes. After the digest is final, or past 2^64 bits, marks the context corrupted. */
KS_API void SHA1Input(SHA1Context* context, const unsigned char* data, unsigned length);
/** Finishes the digest. @return 1, or 0 if the context is corrupted. Note: not the usual status convention. */
KS_API int SHA1Result(SHA1Context* context);

#ifdef __cplusplus
}
#endif

#endif
