// Starting the workers: the threads and processes that a service consists of, and the marks by which ks_stop() knows
// them.
#include "internal.h"

#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ks {

namespace {

// Both are part of the thread from its beginning: what a library gets later is allocated when it is first touched,
// which may be in a handler.
[[gnu::tls_model("initial-exec")]] thread_local const mark* engaged = nullptr;
[[gnu::tls_model("initial-exec")]] thread_local mark of_thread = {};

} // namespace

void engage(mark* here, const service* self) {
    *here = {self, engaged};
    __atomic_signal_fence(__ATOMIC_SEQ_CST); // a handler finds it complete
    engaged = here;
}

void disengage() {
    engaged = engaged->outer;
}

bool is_engaged(const service* self) {
    const mark* each = engaged;
    while (each != nullptr && each->self != self) {
        each = each->outer;
    }
    return each != nullptr;
}

void engage_thread(const service* self) {
    engage(&of_thread, self);
    pthread_sigmask(SIG_SETMASK, &self->thread_mask, nullptr);
}

bool start_thread(pthread_t* ret_thread, void* (*routine)(void*), void* argument) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setscope(&attr, PTHREAD_SCOPE_SYSTEM);
    // KEPT: without PTHREAD_EXPLICIT_SCHED the policy is inherited, so this has no effect.
    pthread_attr_setschedpolicy(&attr, SCHED_RR);
    const signals_blocked until_engaged;
    const bool started = pthread_create(ret_thread, &attr, routine, argument) == 0;
    pthread_attr_destroy(&attr);
    return started;
}

namespace {

// What the line names for all the set-up of a consumer.
constexpr const char* kConsumerSetUp = "ks_consumer_worker_init";

// Thread start routines must be plain functions of one pointer.
void* consumer_thread(void* argument) {
    const auto* start = static_cast<const service::consumer*>(argument);
    service* self = start->self;
    engage_thread(self);
    run_consumer(start->worker, self->waiting);
    locked guard(self);
    --self->running;
    guard.wake_all();
    return nullptr;
}

// For a child of fork(), where malloc() is usable.
void close_from(int first) {
    if (close_range((unsigned)first, ~0U, 0) == 0) {
        return;
    }
    // Kernels before 5.9. The descriptor limit says little: it may be a thousand million, and lower than what is open.
    close(first); // leaves a number for the directory, should all have been taken
    DIR* listing = opendir("/proc/self/fd");
    if (listing == nullptr) {
        for (long fd = first, limit = sysconf(_SC_OPEN_MAX); fd < limit; ++fd) {
            close((int)fd);
        }
        return;
    }
    while (const dirent* entry = readdir(listing)) {
        const int fd = (int)strtol(entry->d_name, nullptr, 10); // 0 for "." and ".."
        if (fd >= first && fd != dirfd(listing)) {
            close(fd);
        }
    }
    closedir(listing);
}

// The child's side of fork(), which comes with all signals blocked; `mask` is the thread's own. The process may have
// had threads: nothing here or in the consumer loop relies on a lock but malloc's, which fork(2) of the C library
// leaves usable.
[[noreturn]] void be_consumer_process(service* self, ks_worker* worker, pid_t parent, const sigset_t& mask) {
    constexpr int kLink = 3;
    dup2(worker->sockfd[0], kLink);
    worker->sockfd[0] = kLink;
    close_from(kLink + 1);
    (void)signal(SIGINT, SIG_IGN);
    (void)signal(SIGTERM, SIG_IGN);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(0); // the parent died before it could have taken us along
    }
    run_consumer(worker, self->waiting);
    const signals_blocked for_good; // a handler may know the handle
    free(self->handle.worker);
    free(self->consumers);
    free(self);
    _exit(0);
}

} // namespace

void start_consumer(service* self, size_t index) {
    ks_worker* worker = &self->handle.worker[index];
    const bool paired = socketpair(AF_UNIX, SOCK_STREAM, 0, worker->sockfd) == 0;
    if (paired) {
        worker->sockfd[0] = above_stdio(worker->sockfd[0]);
        worker->sockfd[1] = above_stdio(worker->sockfd[1]);
    }
    KS_REQUIRE_IN(kConsumerSetUp, paired && set_fd_cloexec(worker->sockfd[0]) && set_fd_cloexec(worker->sockfd[1]),
                  "socketpair(AF_UNIX, SOCK_STREAM, 0, worker->sockfd) >= 0 && set_fd_cloexec(worker->sockfd[0]) && "
                  "set_fd_cloexec(worker->sockfd[1])",
                  "consumer-worker create sockets fail");
    if ((worker->flags & KS_PTHREAD_MODE) != 0) {
        KS_REQUIRE_IN(kConsumerSetUp, start_thread(&worker->id.tid, consumer_thread, &self->consumers[index]),
                      "pthread_create(&worker->id.tid, &attr, ks_consumer_worker, (void*) worker) == 0",
                      "consumer-worker create thread fail");
    } else {
        const pid_t parent = getpid();
        const signals_blocked until_marked;
        worker->id.pid = fork();
        KS_REQUIRE_IN(kConsumerSetUp, worker->id.pid >= 0, "(worker->id.pid = fork()) >= 0",
                      "consumer-worker create process fail");
        if (worker->id.pid == 0) {
            be_consumer_process(self, worker, parent, until_marked.before());
        }
    }
    worker->queue.type = CONSUMER_SOCK;
    worker->queue.sockfd = worker->sockfd[1];
}

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

} // namespace ks
