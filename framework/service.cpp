// Service handle and lifecycle.
//
// Who does what, and who owns what when:
//
//   ks_start()   opens the listening socket and the worker table, starts the consumers, runs the producer loop (in a
//                thread of its own with KS_STANDALONE).
//   ks_stop()    removes the socket, sets `stopping`, wakes the producer by shutting down the listening socket, and
//                waits until the run is over. It closes, joins and frees nothing itself: closing an epoll descriptor
//                would not wake its waiter, and the number could be reused a moment later.
//   end_run()    is for the thread that ran the producer loop: it tells each consumer to stop, waits for it, closes
//                every descriptor and detaches the table. Nobody else touches the table by then, so nothing is read
//                after it is freed, closed twice or waited for twice, however many threads call ks_stop(). Then the
//                run is over; the memory and the consumers' threads follow.
//   the thread   of the producer, with KS_STANDALONE, is joined by the next ks_start() or by ks_free().
//
// ks_stop() may come while ks_start() is still setting up: the service then ends as soon as it is up. It may also come
// from a signal handler, on whatever thread the kernel chooses:
//
//   - On a thread that the service itself needs to end (inside ks_start() or ks_stop(), the producer's, a consumer's)
//     it must not wait: it only notes the request and returns, and what it interrupted ends the run. Each such thread
//     is marked with the service, see engage().
//   - On any other thread it may have interrupted malloc() or free(), and waits while the allocator's lock is held.
//     So neither it nor what it waits for may need that lock: a run is over before its memory is freed and its threads
//     are joined (which frees their stacks), and nobody allocates or frees with the service's own lock held. What is
//     left is the producer, which allocates for each caller that it accepts: it shares the interrupted thread's lock
//     only where the program has more threads than malloc() has arenas, see mallopt(3).
#include "internal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <regex.h>
#include <span>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#define KS_HANDLE_TEXT "service_handle && (*(u_int32_t*) service_handle == KS_HANDLE_MAGIC)"

namespace ks {

namespace {

void set_byte(uint8_t* byte, uint8_t value) {
    __atomic_store_n(byte, value, __ATOMIC_SEQ_CST);
}

// A start's value of `paused`: what ks_pause() and ks_resume() last said. They take no lock, so one that comes
// meanwhile is looked for once more; one that comes after that look writes the byte after us.
void restore_pause(service* self) {
    uint8_t requested{};
    do {
        requested = __atomic_load_n(&self->pause_requested, __ATOMIC_SEQ_CST);
        set_byte(&self->handle.paused, requested);
    } while (__atomic_load_n(&self->pause_requested, __ATOMIC_SEQ_CST) != requested);
}

// Joins the producer's thread of a run that is over.
void join_producer(service* self) {
    {
        locked guard(self);
        if (!self->joinable) {
            return;
        }
        self->joinable = false;
    }
    pthread_join(self->producer, nullptr);
}

// Makes the handle the caller's for a run, and the run's table.
void begin_run(service* self) {
    ks_handle* handle = &self->handle;
    {
        locked guard(self);
        KS_REQUIRE_IN("ks_start", self->state == service::phase::idle, "service_handle->worker == NULL",
                      "cannot start service twice");
        __atomic_store_n(&self->owner, getpid(), __ATOMIC_RELEASE);
        self->state = service::phase::starting;
        ++self->generation;
        ++self->users;
        self->stop_requested = false;
        self->published = false;
        self->thread_mask = guard.mask_before();
        self->running = (handle->mode & KS_PTHREAD_MODE) != 0 ? handle->service_size : 0;
        // An earlier ks_stop() left both bytes set.
        set_byte(&handle->stopping, 0);
        restore_pause(self);
    }
    join_producer(self);
    const size_t entries = handle->service_size + 1;
    ks_worker* table = nullptr;
    service::consumer* consumers = nullptr;
    void* const waiting =
        mmap(nullptr, sizeof(*self->waiting), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (entries != 0) {
        table = static_cast<ks_worker*>(calloc(entries, sizeof(ks_worker)));
        consumers = static_cast<service::consumer*>(calloc(entries, sizeof(service::consumer)));
    }
    KS_REQUIRE_IN("ks_start", table != nullptr && consumers != nullptr && waiting != MAP_FAILED,
                  "(service_handle->worker = calloc(service_option->service_size + 1, sizeof(ks_worker)))",
                  "alloc worker memory fail");
    ks_worker* worker = table;
    for (service::consumer& each : std::span(consumers, handle->service_size)) {
        each = {self, worker++, -1};
    }
    locked guard(self);
    self->consumers = consumers;
    self->waiting = static_cast<size_t*>(waiting);
    __atomic_store_n(&handle->worker, table, __ATOMIC_RELEASE);
}

// Ends what is left of a run once the producer loop has returned. Only the thread that ran the loop comes here.
void end_run(service* self) {
    ks_handle* handle = &self->handle;
    {
        locked guard(self);
        self->listening = false;
    }
    const std::span workers(handle->worker, handle->service_size);
    const std::span consumers(self->consumers, handle->service_size);
    size_t* const waiting = self->waiting;
    ks_worker* const producer = &handle->worker[handle->service_size];
    const bool threads = (handle->mode & KS_PTHREAD_MODE) != 0;
    close_and_clear(&producer->sockfd[1]); // first: new callers get ECONNREFUSED at once and do not wait in vain
    close_and_clear(&producer->pollfd);
    for (const ks_worker& each : workers) {
        (void)send_directive(each.sockfd[1], make_directive(KS_DIRECTIVE_STOP)); // fails when it is gone already
    }
    if (threads) {
        locked guard(self);
        while (self->running > 0) {
            guard.wait();
        }
    } else {
        for (const ks_worker& each : workers) {
            while (waitpid(each.id.pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }
    for (ks_worker& each : workers) {
        close_and_clear(&each.sockfd[0]);
        close_and_clear(&each.sockfd[1]);
        close_and_clear(&each.pollfd);
    }
    for (service::consumer& each : consumers) {
        close_and_clear(&each.in_transit);
    }
    {
        locked guard(self);
        // One that ended by itself in a thread of its own keeps its table until it is stopped.
        while ((handle->mode & KS_STANDALONE) != 0 && !self->stop_requested) {
            guard.wait();
        }
        self->consumers = nullptr;
        __atomic_store_n(&handle->worker, static_cast<ks_worker*>(nullptr), __ATOMIC_RELEASE);
        self->state = service::phase::idle;
        guard.wake_all();
    }
    if (threads) {
        for (const ks_worker& each : workers) {
            pthread_join(each.id.tid, nullptr);
        }
    }
    munmap(waiting, sizeof(*waiting));
    free(consumers.data());
    free(workers.data());
}

// Whether this process has started the service. Not its parent: the lock may have been held when it forked, its waiters
// are not our threads, and its socket and descriptors are not ours to remove.
bool is_ours(const service* self) {
    return __atomic_load_n(&self->owner, __ATOMIC_ACQUIRE) == getpid();
}

// Whether the run that began as number `generation` is not over yet. Under the lock.
bool is_in_run(const service* self, uint64_t generation) {
    return self->state != service::phase::idle && self->generation == generation;
}

void set_serving(service* self) {
    locked guard(self);
    self->state = service::phase::serving;
    guard.wake_all();
}

// The producer's own thread, with KS_STANDALONE. Process workers are forked here and not in the thread that called
// ks_start(): the death signal that they ask for comes when the forking *thread* ends (prctl(2)), and this one lives as
// long as the service.
void* producer_thread(void* argument) {
    service* self = static_cast<service*>(argument);
    engage_thread(self);
    self->handle.worker[self->handle.service_size].id.tid = pthread_self();
    {
        locked guard(self);
        self->producer = pthread_self();
        self->joinable = true;
    }
    if ((self->handle.mode & KS_PROCESS_MODE) != 0) {
        start_all_consumers(self);
    }
    set_serving(self);
    run_producer(self);
    end_run(self);
    return nullptr;
}

void serve_in_own_thread(service* self) {
    ks_handle* handle = &self->handle;
    ks_worker* producer = &handle->worker[handle->service_size];
    producer->init = handle->init;
    producer->init_argument = handle->init_argument;
    producer->fini = handle->fini;
    producer->fini_argument = handle->fini_argument;
    const bool threads = (handle->mode & KS_PTHREAD_MODE) != 0;
    if (threads) {
        start_all_consumers(self);
    }
    const uint64_t generation = self->generation;
    pthread_t thread = {};
    if (!start_thread(&thread, producer_thread, self)) {
        if (!threads) {
            start_all_consumers(self); // where no thread can be made, no process can: report that one first
        }
        abort_with("ks_start",
                   "pthread_create(&producer_worker->id.tid, &attr, ks_producer_worker, (void*) handle) == 0",
                   "producer-worker create thread fail");
    }
    locked guard(self);
    while (is_in_run(self, generation) && self->state == service::phase::starting) {
        guard.wait();
    }
}

void serve_in_this_thread(service* self) {
    ks_handle* handle = &self->handle;
    start_all_consumers(self);
    ks_worker* producer = &handle->worker[handle->service_size];
    producer->flags = KS_PROCESS_MODE;
    producer->id.pid = getpid();
    set_serving(self);
    run_producer(self);
    end_run(self);
}

// Removes the socket's name and wakes the producer. The socket is not touched while open_producer() is still running,
// which would find its file gone: ks_start() then does this itself.
void withdraw(service* self) {
    if (self->published) {
        (void)unlink(self->handle.sockfile);
    }
    if (self->listening) {
        (void)shutdown(self->handle.worker[self->handle.service_size].sockfd[1], SHUT_RDWR);
    }
}

// What a stop does first, under the lock, so that it cannot meet the next run. Safe in a signal handler.
void request_stop(service* self, locked* guard) {
    self->stop_requested = true;
    set_byte(&self->handle.paused, 1);
    set_byte(&self->handle.stopping, 1);
    withdraw(self);
    guard->wake_all();
}

} // namespace

bool hashed_socket_path(const char* name, char* ret_path, size_t size) {
    SHA1Context sha1;
    SHA1Reset(&sha1);
    SHA1Input(&sha1, reinterpret_cast<const unsigned char*>(name), (unsigned)strlen(name));
    if (!SHA1Result(&sha1)) {
        return false;
    }
    (void)snprintf(ret_path, size, "/var/run/ks/%X.sock", sha1.digest[0]);
    return true;
}

} // namespace ks

using ks::is_handle;
using ks::locked;
using ks::service;
using ks::service_of;

ks_handle* ks_create(const char* name, unsigned mode, size_t workers, ks_exec exec) {
    KS_REQUIRE(name != nullptr && strlen(name) <= MAXIMUM_NAME_SIZE, "name && strlen(name) <= MAXIMUM_NAME_SIZE",
               "name cannot be NULL and maximum characters is %d", MAXIMUM_NAME_SIZE);
    KS_REQUIRE((mode | KS_STANDALONE) != KS_STANDALONE, "(mode | KS_STANDALONE) != KS_STANDALONE",
               "mode miss KS_PROCESS_MODE or KS_PTHREAD_MODE");
    KS_REQUIRE((mode | KS_STANDALONE) == (KS_STANDALONE | KS_PROCESS_MODE) ||
                   (mode | KS_STANDALONE) == (KS_STANDALONE | KS_PTHREAD_MODE),
               "(mode | KS_PROCESS_MODE) == KS_PROCESS_MODE || (mode | KS_PROCESS_MODE) == (KS_STANDALONE | "
               "KS_PROCESS_MODE) || (mode | KS_PTHREAD_MODE) == KS_PTHREAD_MODE || (mode | KS_PTHREAD_MODE) == "
               "(KS_STANDALONE | KS_PTHREAD_MODE)",
               "mode only work KS_PROCESS_MODE or KS_PTHREAD_MODE");
    KS_REQUIRE(workers > 0, "workers > 0", "workers option cannot be zero");
    KS_REQUIRE(exec != nullptr, "exec", "exec must be callable function pointer");

    service* self = static_cast<service*>(calloc(1, sizeof(service))); // idle
    KS_REQUIRE(self != nullptr, "(service_handle = malloc(sizeof(ks_handle)))", "alloc ks_handle memory fail");
    ks_handle* handle = &self->handle;
    if (name[0] == '@') {
        KS_REQUIRE(name[1] == '/', "(name[0] == '@' && name[1] == '/')", "name must be absolute file path");
        (void)snprintf(handle->sockfile, ks::kSocketPathSize, "%s", name + 1);
    } else {
        KS_REQUIRE(ks::hashed_socket_path(name, handle->sockfile, ks::kSocketPathSize), "SHA1Result(&sha1)",
                   "generate [%s] SHA1 fail", name);
    }
    pthread_mutex_init(&self->lock, nullptr);
    pthread_cond_init(&self->changed, nullptr);
    handle->magic = KS_HANDLE_MAGIC;
    handle->mode = mode;
    handle->service_size = workers;
    handle->exec = exec;
    (void)snprintf(handle->name, MAXIMUM_NAME_SIZE, "%s", name);
    return handle;
}

// KEPT: both report a foreign handle with the wording of ks_start().
void ks_worker_init(ks_handle* handle, ks_worker_callback callback, void* argument) {
    KS_REQUIRE(is_handle(handle), KS_HANDLE_TEXT, "cannot start incorrect ks_handle %p", (void*)handle);
    handle->init = callback;
    handle->init_argument = argument;
}

void ks_worker_fini(ks_handle* handle, ks_worker_callback callback, void* argument) {
    KS_REQUIRE(is_handle(handle), KS_HANDLE_TEXT, "cannot start incorrect ks_handle %p", (void*)handle);
    handle->fini = callback;
    handle->fini_argument = argument;
}

void ks_start(ks_handle* handle) {
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGXFSZ, SIG_IGN); // a caller can move its file's offset to where RLIMIT_FSIZE lets nobody write
    KS_REQUIRE(is_handle(handle), KS_HANDLE_TEXT, "cannot start incorrect ks_handle %p", (void*)handle);
    service* self = service_of(handle);
    const ks::engagement here(self);
    ks::begin_run(self);
    ks::open_producer(self);
    {
        locked guard(self);
        self->listening = true;
        self->published = true;
        if (self->stop_requested) {
            ks::withdraw(self); // a signal handler on this thread could not
        }
    }
    if ((handle->mode & KS_STANDALONE) != 0) {
        ks::serve_in_own_thread(self);
    } else {
        ks::serve_in_this_thread(self);
    }
    locked guard(self);
    --self->users;
    guard.wake_all();
}

void ks_pause(ks_handle* handle) {
    KS_REQUIRE(is_handle(handle), KS_HANDLE_TEXT, "cannot pause incorrect ks_handle %p", (void*)handle);
    __atomic_store_n(&service_of(handle)->pause_requested, (uint8_t)1, __ATOMIC_SEQ_CST);
    ks::set_byte(&handle->paused, 1);
}

void ks_resume(ks_handle* handle) {
    KS_REQUIRE(is_handle(handle), KS_HANDLE_TEXT, "cannot resume incorrect ks_handle %p", (void*)handle);
    __atomic_store_n(&service_of(handle)->pause_requested, (uint8_t)0, __ATOMIC_SEQ_CST);
    ks::set_byte(&handle->paused, 0);
}

void ks_stop(ks_handle* handle) {
    KS_REQUIRE(is_handle(handle), KS_HANDLE_TEXT, "cannot stop incorrect ks_handle %p", (void*)handle);
    service* self = service_of(handle);
    if (!ks::is_ours(self)) {
        return;
    }
    const bool must_wait = !ks::is_engaged(self);
    const ks::engagement here(self);
    bool first = false;
    {
        locked guard(self);
        if (self->state == service::phase::idle) {
            return;
        }
        const uint64_t generation = self->generation;
        first = !self->stop_requested;
        if (first) {
            ks::request_stop(self, &guard);
        }
        ++self->users;
        while (must_wait && ks::is_in_run(self, generation)) {
            guard.wait();
        }
    }
    if (first) {
        (void)ks::claim_zero();
        close(STDIN_FILENO); // KEPT: the first socket of the producer's entry, never assigned and so 0
    }
    locked guard(self);
    --self->users;
    guard.wake_all();
}

void ks_free(ks_handle* handle) {
    ks_stop(handle);
    service* self = service_of(handle);
    if (ks::is_ours(self)) {
        {
            locked guard(self);
            while (self->users > 0) {
                guard.wait();
            }
        }
        ks::join_producer(self);
    }
    free(self); // the C library keeps nothing for the lock and the condition
}

namespace {
regex_t re;
bool re_compiled = false;
} // namespace

__attribute__((constructor)) void ks_init(void) {
    if (re_compiled) {
        return;
    }
    KS_REQUIRE(regcomp(&re, BLOCKED_PROGRAM_LIST, REG_EXTENDED) == 0,
               "regcomp(&re, BLOCKED_PROGRAM_LIST, REG_EXTENDED) == 0", "cannot compile blocked program list");
    re_compiled = true;
}

__attribute__((destructor)) void ks_fini(void) {
    if (re_compiled) {
        regfree(&re);
        re_compiled = false;
    }
}
