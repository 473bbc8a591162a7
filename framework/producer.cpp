// The producer worker: accepts callers, queues those that no consumer can take yet, hands each to an idle consumer,
// rejects callers when the service is paused or its queue is full, and restarts consumer processes that have died.
//
// One thread; it alone touches the waiting queue, the cursor, the idle flags and in_transit.
//
// Ownership of a caller's connection: the waiting queue's entry owns it; with the hand-over it is "in transit": the
// consumer receives its own descriptor by message, and the number here stays open, noted in in_transit, until the
// consumer's echo says that its copy has arrived; its ready message says so, too, should the echo not have been sent. A
// consumer that dies or stops in between never echoes; the number is then closed by the restart or by the end of the
// run. A consumer has at most one caller in transit, since it reports ready only after its echo.
//
// An event of a batch may concern an entry that an earlier event of the same batch has freed, or a link that it has
// replaced: so freeing or replacing removes the pointer from the rest of the batch (forget).
#include "internal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ks {

namespace {

constexpr uint32_t kWatched = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP;
constexpr uint32_t kHungUp = EPOLLIN | EPOLLHUP | EPOLLRDHUP; // both directions are shut
constexpr int kBatch = 64;
constexpr int kBacklog = 128;
constexpr size_t kMaxWaiting = 999; // one more may still be queued
constexpr int64_t kAcceptRetryMs = 100;
constexpr const char* kSetUp = "ks_producer_worker_init";

struct waiting_caller {
    ks_queue queue; // first, so that the two pointers convert
    uid_t user;     // who connected
    bool watched;   // registered in the producer's epoll
};

waiting_caller* caller_of(ks_queue* queue) {
    return reinterpret_cast<waiting_caller*>(queue);
}

struct producer {
    service* self;
    ks_handle* handle;
    ks_worker* own;            // the producer's table entry
    size_t cursor;             // where the next search for an idle consumer begins
    size_t waiting;            // entries in the list, see set_waiting()
    const ks_queue* speaking;  // the waiting caller whose own readiness is being worked on, until it is freed
    int64_t accept_retry_at;   // 0, or when a listening socket muted for want of descriptors is tried again
    epoll_event batch[kBatch]; // the events being worked through
    int batch_next;
    int batch_size;
};

bool watch(const producer* p, int op, ks_queue* entry, uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.ptr = entry;
    return epoll_ctl(p->own->pollfd, op, entry->sockfd, &event) == 0;
}

void forget(producer* p, const ks_queue* entry) {
    for (int i = p->batch_next; i < p->batch_size; ++i) {
        if (p->batch[i].data.ptr == entry) {
            p->batch[i].data.ptr = nullptr;
        }
    }
    if (p->speaking == entry) {
        p->speaking = nullptr;
    }
}

void hang_up(int fd) {
    (void)shutdown(fd, SHUT_RDWR);
    close(fd);
}

// The consumers look at it too, see wait_for_caller().
void set_waiting(producer* p, size_t count) {
    p->waiting = count;
    __atomic_store_n(p->self->waiting, count, __ATOMIC_RELAXED);
}

// Takes the entry out of the epoll, the list and the batch, and frees it. The connection stays open.
void unlist(producer* p, ks_queue* entry) {
    waiting_caller* caller = caller_of(entry);
    if (caller->watched) {
        (void)epoll_ctl(p->own->pollfd, EPOLL_CTL_DEL, entry->sockfd, nullptr);
    }
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    set_waiting(p, p->waiting - 1);
    forget(p, entry);
    free(caller);
}

void remove_caller(producer* p, ks_queue* entry) {
    const int fd = entry->sockfd;
    unlist(p, entry);
    hang_up(fd);
}

void turn_away(int fd, uint8_t why) {
    (void)send_directive(fd, make_directive(why));
    hang_up(fd);
}

void restart_consumer(producer* p, ks_worker* worker, int status) {
    const char* how = "WIFEXITED";
    int value = WEXITSTATUS(status);
    if (WIFSTOPPED(status)) {
        how = "WIFSTOPPED";
        value = WSTOPSIG(status);
    } else if (WIFSIGNALED(status)) {
        how = "WIFSIGNALED";
        value = WTERMSIG(status);
    }
    // Where standard error is closed, the restart matters more than the line.
    (void)dprintf(STDERR_FILENO, "[KService] [WARN] [%s] consumer-worker[%zu].pid=%d %s=%d, restart it.\n",
                  p->handle->name, worker->index, (int)worker->id.pid, how, value);
    worker->idle = 1;
    forget(p, &worker->queue);
    // Other processes may hold copies of the link (a child forked by the program meanwhile): closing it would not take
    // it out of the epoll, and its end would then be taken for that of the new link.
    (void)epoll_ctl(p->own->pollfd, EPOLL_CTL_DEL, worker->sockfd[1], nullptr);
    close_and_clear(&worker->sockfd[0]);
    close_and_clear(&worker->sockfd[1]);
    close_and_clear(&p->self->consumers[worker->index].in_transit);
    start_consumer(p->self, worker->index);
    watch_consumer(p->self, worker->index);
}

// Hands the first waiting caller to `worker`, which is idle.
void hand_over(producer* p, ks_worker* worker) {
    ks_queue* first = p->own->queue.next;
    const int fd = first->sockfd;
    const bool spoke_itself = first == p->speaking;
    directive transfer = make_directive(KS_DIRECTIVE_TRANSFER);
    const int32_t number = fd;
    memcpy(transfer.data, &number, sizeof(number));

    const size_t sent = send_with_descriptors(worker->sockfd[1], transfer, {&number, 1});
    const bool announced = sent > 0;
    if (sent == 1 && !send_descriptor(worker->sockfd[1], fd, 0) &&
        // It waits for a message: let it find one, and report ready. Without memory for that, end the link, and with it
        // the service: a worker that waits for ever would hold up its stop as well.
        !send_descriptor(worker->sockfd[1], -1, 0)) {
        (void)shutdown(worker->sockfd[1], SHUT_RDWR);
    }
    unlist(p, first);
    if (!announced) {
        hang_up(fd); // the consumer has received nothing; a dead link is reported by itself
        return;
    }
    worker->idle = 0;
    p->self->consumers[worker->index].in_transit = fd;
    if (spoke_itself) {
        (void)shutdown(fd, SHUT_RDWR);
        // The echo closes this number once more. The epoll's duplicate keeps it taken until then, so that nobody else's
        // descriptor can get it.
        (void)dup3(p->own->pollfd, fd, O_CLOEXEC);
    }
}

// One event can find several consumers free: a dead one is noticed here only, and then beside one that has just
// reported ready. Whoever is passed over now would stay idle until the next event, so the search goes on while somebody
// waits.
void dispatch(producer* p) {
    const size_t begin = p->cursor;
    size_t at = begin;
    while (p->waiting > 0) {
        ks_worker* candidate = &p->handle->worker[at];
        if ((candidate->flags & KS_PROCESS_MODE) != 0) {
            int status{};
            if (waitpid(candidate->id.pid, &status, WNOHANG) != 0) {
                restart_consumer(p, candidate, status);
            }
        }
        at = (at + 1) % p->handle->service_size;
        if (candidate->idle != 0) {
            hand_over(p, candidate);
            p->cursor = at;
        }
        if (at == begin) {
            return;
        }
    }
}

// Who connected; nobody's own id when the kernel does not tell.
uid_t user_of(int fd) {
    ucred peer = {0, (uid_t)-1, 0};
    socklen_t size = sizeof(peer);
    (void)getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    return peer.uid;
}

// A full list is not one user's alone: while one holds more than half of it, another user's caller takes the place of
// the newest of them. False = there is no such user, or the newcomer is his.
bool make_room(producer* p, uid_t newcomer) {
    const ks_queue* head = &p->own->queue;
    uid_t user = newcomer; // the only one who can hold more than half, by Boyer and Moore's vote
    size_t votes = 0;
    for (ks_queue* each = head->next; each != head; each = each->next) {
        const uid_t voter = caller_of(each)->user;
        if (votes == 0) {
            user = voter;
        }
        votes = voter == user ? votes + 1 : votes - 1;
    }
    size_t held = 0;
    ks_queue* newest = nullptr;
    for (ks_queue* each = head->next; each != head; each = each->next) {
        if (caller_of(each)->user == user) {
            newest = each;
            ++held;
        }
    }
    if (user == newcomer || held <= p->waiting / 2) {
        return false;
    }
    const int fd = newest->sockfd;
    unlist(p, newest);
    turn_away(fd, KS_DIRECTIVE_BUSY);
    return true;
}

void accept_caller(producer* p) {
    int fd = accept4(p->own->sockfd[1], nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        // Without a free descriptor or memory the caller stays in the backlog, and the socket stays readable: look
        // again in a while instead of at once.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            p->accept_retry_at = now_ms() + kAcceptRetryMs;
            (void)watch(p, EPOLL_CTL_MOD, &p->own->queue, 0);
        }
        return;
    }
    fd = above_stdio(fd);
    if (fd < 0) {
        return;
    }
    if (__atomic_load_n(&p->handle->paused, __ATOMIC_ACQUIRE) != 0) {
        turn_away(fd, KS_DIRECTIVE_PAUSED);
        return;
    }
    if (p->waiting > kMaxWaiting && !make_room(p, user_of(fd))) {
        turn_away(fd, KS_DIRECTIVE_BUSY);
        return;
    }
    auto* caller = static_cast<waiting_caller*>(calloc(1, sizeof(waiting_caller)));
    if (caller == nullptr) {
        hang_up(fd);
        return;
    }
    ks_queue* entry = &caller->queue;
    ks_queue* head = &p->own->queue;
    entry->type = CLIENT_SOCK;
    entry->sockfd = fd;
    entry->next = head;
    entry->prev = head->prev;
    head->prev->next = entry;
    head->prev = entry;
    set_waiting(p, p->waiting + 1);
    // Nearly always a consumer is idle and the caller leaves the list at once; only one that has to stay is watched.
    // The list is in arrival order, so the newcomer is the last entry, if it is still there.
    dispatch(p);
    if (p->waiting == 0 || head->prev != entry) {
        return;
    }
    caller->user = user_of(fd);
    caller->watched = watch(p, EPOLL_CTL_ADD, entry, kWatched);
    if (!caller->watched) {
        remove_caller(p, entry);
    }
}

// The number that a directive carries, unaligned.
template <class T>
T value_in(const directive& message) {
    T value = {};
    memcpy(&value, message.data, sizeof(value));
    return value;
}

void hear_consumer(producer* p, ks_queue* link) {
    directive message = {};
    ssize_t got = recv(link->sockfd, &message, sizeof(message), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return; // a spurious wake-up; the event comes again if there is something
    }
    KS_REQUIRE_IN("ks_producer_worker", got == (ssize_t)sizeof(message),
                  "read(event_queue->sockfd, &directive, sizeof(directive)) == sizeof(directive)",
                  "producer-worker receive consumer_worker directive fail");
    if (message.type == KS_DIRECTIVE_TRANSFER) {
        const auto number = value_in<int32_t>(message);
        KS_REQUIRE_IN("ks_producer_worker", number >= 0, "*((int*)&directive.data) >= 0",
                      "producer-worker transfer client sockfd fail");
        const size_t index =
            (size_t)(reinterpret_cast<ks_worker*>((char*)link - offsetof(ks_worker, queue)) - p->handle->worker);
        if (p->self->consumers[index].in_transit == number) {
            close_and_clear(&p->self->consumers[index].in_transit);
        }
        return;
    }
    if (message.type == KS_DIRECTIVE_READY) {
        const auto index = value_in<size_t>(message);
        if (index >= p->handle->service_size) {
            return;
        }
        p->handle->worker[index].idle = 1;
        close_and_clear(&p->self->consumers[index].in_transit); // an echo that could not be sent
    }
    dispatch(p);
}

// A waiting caller sent something. It stays unread for the consumer; to avoid endless events, only its hang-up is
// watched from now on. Nothing is missed by that: whenever a consumer becomes idle, a dispatch follows.
void hear_caller(producer* p, ks_queue* entry) {
    p->speaking = entry;
    dispatch(p);
    if (p->speaking == nullptr) {
        return; // it has been handed over, and freed
    }
    p->speaking = nullptr;
    if (!watch(p, EPOLL_CTL_MOD, entry, 0)) { // errors and hang-ups are always reported
        remove_caller(p, entry);
    }
}

// Works on one event. False = the loop must end.
bool handle_event(producer* p, uint32_t events, ks_queue* entry) {
    if (entry == nullptr || entry->sockfd == 0) {
        return true;
    }
    if (events == kHungUp) {
        if (entry->type != CLIENT_SOCK) {
            close_and_clear(&p->own->pollfd);
            return false;
        }
        remove_caller(p, entry);
        return true;
    }
    if ((events & (EPOLLERR | EPOLLHUP)) != 0 || (events & EPOLLIN) == 0) {
        KS_REQUIRE_IN("ks_producer_worker", entry->type == CLIENT_SOCK, "event_queue->type == CLIENT_SOCK",
                      "get non-client socket execption %d", (int)entry->type);
        remove_caller(p, entry);
        return true;
    }
    switch (entry->type) {
    case LISTEN_SOCK:
        accept_caller(p);
        break;
    case CONSUMER_SOCK:
        hear_consumer(p, entry);
        break;
    default:
        hear_caller(p, entry);
        break;
    }
    return true;
}

// Waits for the next batch. False = the loop must end.
bool next_batch(producer* p) {
    for (;;) {
        const int timeout_ms = p->accept_retry_at != 0 ? wait_time(p->accept_retry_at) : -1;
        p->batch_next = 0;
        p->batch_size = epoll_wait(p->own->pollfd, p->batch, kBatch, timeout_ms);
        if (p->batch_size < 0 && errno == EINTR) {
            continue;
        }
        if (p->accept_retry_at != 0 && now_ms() >= p->accept_retry_at) {
            p->accept_retry_at = 0;
            (void)watch(p, EPOLL_CTL_MOD, &p->own->queue, kWatched);
        }
        return p->batch_size >= 0; // none when it only was time to listen again
    }
}

} // namespace

void open_producer(service* self) {
    ks_handle* handle = &self->handle;
    ks_worker* own = &handle->worker[handle->service_size];
    struct stat st = {};
    if (lstat(handle->sockfile, &st) != 0) {
        // One level only; bind() reports what is missing above.
        char directory[sizeof(handle->sockfile)];
        memcpy(directory, handle->sockfile, sizeof(directory));
        char* slash = strrchr(directory, '/');
        if (slash != nullptr) {
            *slash = '\0';
            (void)mkdir(directory, 0755);
        }
    } else {
        KS_REQUIRE_IN(kSetUp, S_ISSOCK(st.st_mode), "S_ISSOCK(st.st_mode)", "%s is not a sock file", handle->sockfile);
    }
    (void)unlink(handle->sockfile);

    own->index = handle->service_size;
    own->sockfd[1] = above_stdio(socket(AF_UNIX, SOCK_STREAM, 0));
    KS_REQUIRE_IN(kSetUp, set_fd_cloexec(own->sockfd[1]),
                  "(producer_worker->sockfd[1] = socket(AF_UNIX, SOCK_STREAM, 0)) >= 0 && "
                  "set_fd_cloexec(producer_worker->sockfd[1])",
                  "producer-worker create listen socket fail");
    // A caller can be gone again between the event and the accept, which must not block then.
    (void)fcntl(own->sockfd[1], F_SETFL, O_NONBLOCK);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    static_assert(sizeof(handle->sockfile) <= sizeof(address.sun_path));
    memcpy(address.sun_path, handle->sockfile, sizeof(handle->sockfile));
    KS_REQUIRE_IN(kSetUp, bind(own->sockfd[1], reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0,
                  "bind(producer_worker->sockfd[1], (struct sockaddr *) &sockaddr, sizeof(struct sockaddr_un)) == 0",
                  "producer-worker bind listen socket fail");
    own->pollfd = above_stdio(epoll_create(1));
    KS_REQUIRE_IN(kSetUp, set_fd_cloexec(own->pollfd),
                  "(producer_worker->pollfd = epoll_create(1)) >= 0 && set_fd_cloexec(producer_worker->pollfd)",
                  "producer-worker create epoll fail");
    own->flags = KS_PTHREAD_MODE; // what it is becomes known when it runs
    own->queue.type = LISTEN_SOCK;
    own->queue.sockfd = own->sockfd[1];
    own->queue.next = &own->queue;
    own->queue.prev = &own->queue;
    KS_REQUIRE_IN(kSetUp, listen(own->queue.sockfd, kBacklog) == 0,
                  "listen(producer_worker->queue.sockfd, SOMAXCONN) == 0", "producer-worker listen socket fail");
    // Any local user may call.
    KS_REQUIRE_IN(kSetUp, chmod(handle->sockfile, 0777) == 0, "chmod(service_handle->sockfile, 0777) == 0",
                  "producer-worker change socket file mode fail");
    epoll_event event = {};
    event.events = kWatched;
    event.data.ptr = &own->queue;
    KS_REQUIRE_IN("ks_start", epoll_ctl(own->pollfd, EPOLL_CTL_ADD, own->queue.sockfd, &event) == 0,
                  "epoll_ctl(producer_worker->pollfd, EPOLL_CTL_ADD, producer_worker->queue.sockfd, ev) == 0",
                  "producer-worker epoll add listen sockfd fail");
}

void watch_consumer(service* self, size_t index) {
    ks_worker* worker = &self->handle.worker[index];
    epoll_event event = {};
    event.events = kWatched;
    event.data.ptr = &worker->queue;
    KS_REQUIRE_IN("ks_consumer_worker_init",
                  epoll_ctl(self->handle.worker[self->handle.service_size].pollfd, EPOLL_CTL_ADD, worker->queue.sockfd,
                            &event) == 0,
                  "epoll_ctl(producer_worker->pollfd, EPOLL_CTL_ADD, worker->queue.sockfd, ev) == 0",
                  "producer-worker epoll add consumer-worker sockfd fail");
}

void run_producer(service* self) {
    producer p = {};
    p.self = self;
    p.handle = &self->handle;
    p.own = &self->handle.worker[self->handle.service_size];
    bool going = true;
    while (going && next_batch(&p) && !is_stopping(p.handle)) { // a stop wakes it through the listening socket
        while (going && p.batch_next < p.batch_size) {
            const epoll_event& event = p.batch[p.batch_next++];
            going = handle_event(&p, event.events, static_cast<ks_queue*>(event.data.ptr));
        }
    }
    for (ks_queue* each = p.own->queue.next; each != &p.own->queue;) {
        ks_queue* next = each->next;
        const int fd = each->sockfd;
        unlist(&p, each);
        close(fd);
        each = next;
    }
}

} // namespace ks
