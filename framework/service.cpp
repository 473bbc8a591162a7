// Service handle and lifecycle.
//
// Who does what, and who owns what when:
//
//   ks_start()   opens the listening socket and the worker table, starts the consumers, runs the producer loop (in a
//                thread of its own with KS_STANDALONE).
//   ks_stop()    withdraws the socket, sets `stopping`, wakes the producer by shutting the listening socket down, and
//                waits. It closes nothing itself: closing an epoll descriptor would not wake its waiter, and the number
//                could be somebody else's a moment later.
//   end_run()    is for the thread that ran the producer loop: it tells each consumer to stop, waits for it, and closes
//                every descriptor. Nobody else touches the table any more, so nothing is read after it is freed, closed
//                twice or waited for twice, however many threads call ks_stop().
//   the table    is freed by ks_start() as it returns, or by ks_stop() after joining the producer with KS_STANDALONE.
//
// ks_stop() may come while ks_start() is still setting up: it waits until the service is up, then stops it. It may also
// come from a signal handler, on whatever thread the kernel chooses. On one that the service itself needs to end
// (inside ks_start() or ks_stop(), the producer's, a consumer's) it must not wait: it then only leaves its mark and
// returns, and what it interrupted ends the run. Each such thread carries the service in `engaged`.
#include "internal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <regex.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#define KS_HANDLE_TEXT "service_handle && (*(u_int32_t*) service_handle == KS_HANDLE_MAGIC)"

namespace ks {

namespace {

// Holds a service's lock with all signals blocked, so that a handler on this thread never finds it taken.
class locked {
public:
    explicit locked(service* self) : self_(self) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
        pthread_mutex_lock(&self_->lock);
    }
    ~locked() {
        pthread_mutex_unlock(&self_->lock);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    locked(const locked&) = delete;
    locked& operator=(const locked&) = delete;

    // The thread's own mask.
    [[nodiscard]] const sigset_t& mask_before() const { return before_; }

    void wait() { pthread_cond_wait(&self_->changed, &self_->lock); }
    void wake_all() { pthread_cond_broadcast(&self_->changed); }

private:
    service* self_;
    sigset_t before_;
};

void set_byte(uint8_t* byte, uint8_t value) {
    __atomic_store_n(byte, value, __ATOMIC_SEQ_CST);
}

// The service whose end depends on this thread.
thread_local const service* engaged = nullptr;

class engagement {
public:
    explicit engagement(const service* self) : before_(engaged) { engaged = self; }
    ~engagement() { engaged = before_; }
    engagement(const engagement&) = delete;
    engagement& operator=(const engagement&) = delete;

private:
    const service* before_;
};

// First thing in a thread of the service, which is started with all signals blocked: a handler must not run on it
// before it is marked. The mark stays until the thread is gone.
void engage_thread(const service* self) {
    engaged = self;
    pthread_sigmask(SIG_SETMASK, &self->thread_mask, nullptr);
}

// Thread start routines must be plain functions of one pointer.
void* consumer_thread(void* argument) {
    const auto* start = static_cast<const service::consumer_start*>(argument);
    engage_thread(start->self);
    run_consumer(start->worker);
    return nullptr;
}

bool start_thread(pthread_t* ret_thread, void* (*routine)(void*), void* argument) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setscope(&attr, PTHREAD_SCOPE_SYSTEM);
    // KEPT: without PTHREAD_EXPLICIT_SCHED the policy is inherited, so this has no effect.
    pthread_attr_setschedpolicy(&attr, SCHED_RR);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // until engage_thread()
    const bool started = pthread_create(ret_thread, &attr, routine, argument) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attr);
    return started;
}

void close_from(unsigned first) {
    if (close_range(first, ~0U, 0) == 0) {
        return;
    }
    // Kernels before 5.9.
    const long limit = sysconf(_SC_OPEN_MAX);
    for (long fd = (long)first; fd < limit; ++fd) {
        close((int)fd);
    }
}

// The child's side of fork(). The process may have had threads: until the consumer loop only system calls are made, and
// what follows relies on no lock but malloc's, which fork(2) of the C library leaves usable.
[[noreturn]] void be_consumer_process(service* self, ks_worker* worker, pid_t parent) {
    constexpr int kLink = 3;
    if (worker->sockfd[0] != kLink) {
        dup2(worker->sockfd[0], kLink);
    }
    worker->sockfd[0] = kLink;
    worker->sockfd[1] = -1; // the producer's end is the parent's
    close_from(kLink + 1);
    (void)signal(SIGINT, SIG_IGN);
    (void)signal(SIGTERM, SIG_IGN);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(0); // the parent died before it could have taken us along
    }
    run_consumer(worker);
    free(self->handle.worker);
    free(self->in_transit);
    free(self->starts);
    free(self);
    _exit(0);
}

// What the line names for all the set-up of a consumer.
constexpr const char* kConsumerSetUp = "ks_consumer_worker_init";

void start_all_consumers(service* self) {
    for (size_t i = 0; i < self->handle.service_size; ++i) {
        ks_worker* worker = &self->handle.worker[i];
        worker->index = i;
        worker->flags = self->handle.mode;
        worker->exec = self->handle.exec;
        worker->init = self->handle.init;
        worker->init_argument = self->handle.init_argument;
        worker->fini = self->handle.fini;
        worker->fini_argument = self->handle.fini_argument;
        worker->idle = 1;
        worker->pollfd = -1;
        start_consumer(self, i);
        watch_consumer(self, i);
    }
}

// Tells consumer `worker` to stop and waits until it has.
void end_consumer(ks_worker* worker) {
    (void)send_directive(worker->sockfd[1], make_directive(KS_DIRECTIVE_STOP)); // fails when it is gone already
    if ((worker->flags & KS_PROCESS_MODE) != 0) {
        while (waitpid(worker->id.pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    } else {
        pthread_join(worker->id.tid, nullptr);
    }
    close_and_clear(&worker->sockfd[0]);
    close_and_clear(&worker->sockfd[1]);
    close_and_clear(&worker->pollfd);
}

// Ends what is left of a run once the producer loop has returned. Only the thread that ran the loop comes here.
void end_run(service* self) {
    {
        locked guard(self);
        self->listening = false;
    }
    ks_handle* handle = &self->handle;
    for (size_t i = 0; i < handle->service_size; ++i) {
        end_consumer(&handle->worker[i]);
        close_and_clear(&self->in_transit[i]);
    }
    ks_worker* producer = &handle->worker[handle->service_size];
    close_and_clear(&producer->sockfd[1]);
    close_and_clear(&producer->pollfd);
}

// Gives the table back; the service can be started again.
void free_table(service* self, locked* guard) {
    free(self->in_transit);
    self->in_transit = nullptr;
    free(self->starts);
    self->starts = nullptr;
    free(self->handle.worker);
    __atomic_store_n(&self->handle.worker, static_cast<ks_worker*>(nullptr), __ATOMIC_RELEASE);
    self->state = service::phase::idle;
    guard->wake_all();
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
    if ((self->handle.mode & KS_PROCESS_MODE) != 0) {
        start_all_consumers(self);
    }
    set_serving(self);
    run_producer(self);
    end_run(self);
    return nullptr;
}

void start_standalone(service* self) {
    ks_handle* handle = &self->handle;
    ks_worker* producer = &handle->worker[handle->service_size];
    producer->flags = KS_PTHREAD_MODE;
    producer->init = handle->init;
    producer->init_argument = handle->init_argument;
    producer->fini = handle->fini;
    producer->fini_argument = handle->fini_argument;
    const bool threads = (handle->mode & KS_PTHREAD_MODE) != 0;
    if (threads) {
        start_all_consumers(self);
    }
    if (!start_thread(&producer->id.tid, producer_thread, self)) {
        if (!threads) {
            start_all_consumers(self); // where no thread can be made, no process can: report that one first
        }
        abort_with("ks_start",
                   "pthread_create(&producer_worker->id.tid, &attr, ks_producer_worker, (void*) handle) == 0",
                   "producer-worker create thread fail");
    }
    bool join = false;
    {
        locked guard(self);
        while (self->state == service::phase::starting) {
            guard.wait();
        }
        // Stopped by a signal handler that could not wait.
        join = self->stop_requested && !self->join_claimed;
        self->join_claimed = self->join_claimed || join;
    }
    if (join) {
        pthread_join(producer->id.tid, nullptr);
    }
    locked guard(self);
    if (join) {
        free_table(self, &guard);
    }
    --self->users;
    guard.wake_all();
}

// Takes the socket's name away and wakes the producer. The socket is not touched while open_producer() is still at it,
// which would find its file gone: ks_start() then does this itself.
void withdraw(service* self) {
    if (self->published) {
        (void)unlink(self->handle.sockfile);
        self->published = false;
    }
    if (self->listening) {
        (void)shutdown(self->handle.worker[self->handle.service_size].sockfd[1], SHUT_RDWR);
    }
}

// A start's value of `paused`: what ks_pause() and ks_resume() last said. They take no lock, so one that comes
// meanwhile is looked for once more; one that comes after that look writes the byte after us.
void restore_pause(service* self) {
    uint8_t requested = 0;
    do {
        requested = __atomic_load_n(&self->pause_requested, __ATOMIC_SEQ_CST);
        set_byte(&self->handle.paused, requested);
    } while (__atomic_load_n(&self->pause_requested, __ATOMIC_SEQ_CST) != requested);
}

// What a stop does first, under the lock, so that it cannot meet the next run. Safe in a signal handler.
void request_stop(service* self) {
    self->stop_requested = true;
    set_byte(&self->handle.paused, 1);
    set_byte(&self->handle.stopping, 1);
    withdraw(self);
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

void start_consumer(service* self, size_t index) {
    ks_worker* worker = &self->handle.worker[index];
    int pair[2] = {-1, -1};
    const bool paired = socketpair(AF_UNIX, SOCK_STREAM, 0, pair) >= 0;
    worker->sockfd[0] = above_stdio(pair[0]);
    worker->sockfd[1] = above_stdio(pair[1]);
    KS_REQUIRE_IN(kConsumerSetUp,
                  paired && worker->sockfd[0] >= 0 && worker->sockfd[1] >= 0 && set_fd_cloexec(worker->sockfd[0]) &&
                      set_fd_cloexec(worker->sockfd[1]),
                  "socketpair(AF_UNIX, SOCK_STREAM, 0, worker->sockfd) >= 0 && set_fd_cloexec(worker->sockfd[0]) && "
                  "set_fd_cloexec(worker->sockfd[1])",
                  "consumer-worker create sockets fail");
    if ((worker->flags & KS_PTHREAD_MODE) != 0) {
        KS_REQUIRE_IN(kConsumerSetUp, start_thread(&worker->id.tid, consumer_thread, &self->starts[index]),
                      "pthread_create(&worker->id.tid, &attr, ks_consumer_worker, (void*) worker) == 0",
                      "consumer-worker create thread fail");
    } else {
        const pid_t parent = getpid();
        worker->id.pid = fork();
        KS_REQUIRE_IN(kConsumerSetUp, worker->id.pid >= 0, "(worker->id.pid = fork()) >= 0",
                      "consumer-worker create process fail");
        if (worker->id.pid == 0) {
            be_consumer_process(self, worker, parent);
        }
    }
    worker->queue.type = CONSUMER_SOCK;
    worker->queue.sockfd = worker->sockfd[1];
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

    service* self = static_cast<service*>(calloc(1, sizeof(service)));
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
    self->state = service::phase::idle;
    handle->magic = KS_HANDLE_MAGIC;
    handle->mode = mode;
    handle->service_size = workers;
    handle->exec = exec;
    (void)snprintf(handle->name, MAXIMUM_NAME_SIZE, "%s", name);
    handle->worker = nullptr;
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
    KS_REQUIRE(is_handle(handle), KS_HANDLE_TEXT, "cannot start incorrect ks_handle %p", (void*)handle);
    service* self = service_of(handle);
    const ks::engagement here(self);
    {
        locked guard(self);
        KS_REQUIRE(handle->worker == nullptr, "service_handle->worker == NULL", "cannot start service twice");
        const size_t entries = handle->service_size + 1;
        auto* table = entries == 0 ? nullptr : static_cast<ks_worker*>(calloc(entries, sizeof(ks_worker)));
        self->in_transit = entries == 0 ? nullptr : static_cast<int32_t*>(calloc(entries, sizeof(int32_t)));
        self->starts = entries == 0
                           ? nullptr
                           : static_cast<service::consumer_start*>(calloc(entries, sizeof(service::consumer_start)));
        KS_REQUIRE(table != nullptr && self->in_transit != nullptr && self->starts != nullptr,
                   "(service_handle->worker = calloc(service_option->service_size + 1, sizeof(ks_worker)))",
                   "alloc worker memory fail");
        memset(self->in_transit, 0xFF, entries * sizeof(int32_t)); // -1 each
        for (size_t i = 0; i < entries; ++i) {
            self->starts[i] = {self, &table[i]};
        }
        // An earlier ks_stop() left both bytes set.
        ks::set_byte(&handle->stopping, 0);
        ks::restore_pause(self);
        self->stop_requested = false;
        self->join_claimed = false;
        self->thread_mask = guard.mask_before();
        __atomic_store_n(&handle->worker, table, __ATOMIC_RELEASE);
        self->state = service::phase::starting;
        ++self->generation;
        ++self->users;
    }
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
        ks::start_standalone(self);
        return;
    }
    ks::start_all_consumers(self);
    ks_worker* producer = &handle->worker[handle->service_size];
    producer->flags = KS_PROCESS_MODE;
    producer->id.pid = getpid();
    ks::set_serving(self);
    ks::run_producer(self);
    ks::end_run(self);
    locked guard(self);
    ks::free_table(self, &guard);
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
    if (__atomic_load_n(&handle->worker, __ATOMIC_ACQUIRE) == nullptr) {
        return;
    }
    service* self = service_of(handle);
    const bool own_thread = ks::engaged == self;
    const ks::engagement here(self);
    bool first = false;
    bool join = false;
    pthread_t producer = {};
    uint64_t generation = 0;
    {
        locked guard(self);
        if (handle->worker == nullptr) {
            return;
        }
        generation = self->generation;
        while (!own_thread && self->state == service::phase::starting) {
            guard.wait();
        }
        if (handle->worker == nullptr || self->generation != generation) {
            return; // that run has ended meanwhile
        }
        ++self->users;
        first = !self->stop_requested;
        if (first) {
            ks::request_stop(self);
        }
        join = !own_thread && !self->join_claimed && (handle->mode & KS_STANDALONE) != 0;
        if (join) {
            self->join_claimed = true;
            producer = handle->worker[handle->service_size].id.tid;
        }
    }
    if (join) {
        pthread_join(producer, nullptr);
    }
    {
        locked guard(self);
        if (join) {
            ks::free_table(self, &guard);
        }
        while (!own_thread && handle->worker != nullptr && self->generation == generation) {
            guard.wait();
        }
    }
    if (first) {
        close(STDIN_FILENO); // KEPT: the first socket of the producer's entry, never assigned and so 0
    }
    locked guard(self);
    --self->users;
    guard.wake_all();
}

void ks_free(ks_handle* handle) {
    ks_stop(handle);
    service* self = service_of(handle);
    {
        locked guard(self);
        while (self->users > 0) {
            guard.wait();
        }
    }
    pthread_cond_destroy(&self->changed);
    pthread_mutex_destroy(&self->lock);
    free(self);
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
