// The consumer worker: serves one caller at a time.
//
// Conversation with a caller, whose connection it owns from the transfer to the request (the ks_io owns it then):
//
//     producer -> consumer   transfer + descriptor
//     consumer -> producer   the transfer, echoed: the producer closes its copy
//     consumer -> caller     accepted
//     caller   -> consumer   request + memory file [+ extra descriptor]
//     consumer -> producer   ready, once the callback has returned, or as soon as the caller failed at any step
//
// During a conversation the producer sends nothing but "stop", so anything on the link makes the consumer drop a caller
// that has not sent its request. An invited caller has kPatienceMs for all of it, and kStepMs for each message while
// somebody else waits for a worker: two silent callers would hold up a service of two.
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ks {

namespace {

constexpr int64_t kPatienceMs = 30000;
constexpr int64_t kStepMs = 2000;
constexpr int64_t kLookMs = 100; // how often a caller that is over kStepMs is weighed against those that wait

struct caller {
    int fd;                // owned connection
    int link;              // borrowed: the worker's end of the link to the producer
    int64_t give_up_at;    // now_ms() of the end of patience
    const size_t* waiting; // borrowed: how many wait for a consumer
};

void report_ready(const ks_worker* worker) {
    directive ready = make_directive(KS_DIRECTIVE_READY);
    memcpy(ready.data, &worker->index, sizeof(worker->index));
    (void)send_directive(worker->sockfd[0], ready); // fails when the producer is gone: the link then says so
}

void hang_up(int fd) {
    (void)shutdown(fd, SHUT_RDWR);
    close(fd);
}

// Waits until the caller has sent something. False = it is gone, the time is up, or the producer has sent something.
bool wait_for_caller(const caller& who) {
    pollfd watched[] = {{who.fd, POLLIN | POLLRDHUP, {}}, {who.link, POLLIN | POLLRDHUP, {}}};
    const int64_t step_ends_at = now_ms() + kStepMs;
    int64_t look_at = std::min(step_ends_at, who.give_up_at);
    while (TEMP_FAILURE_RETRY(poll(watched, std::size(watched), wait_time(look_at))) == 0) {
        const int64_t now = now_ms();
        if (now >= who.give_up_at || (now >= step_ends_at && __atomic_load_n(who.waiting, __ATOMIC_RELAXED) != 0)) {
            return false;
        }
        look_at = std::min(now + kLookMs, who.give_up_at);
    }
    // Hung up in both directions: whatever it sent before, nobody waits for a reply.
    return watched[0].revents != 0 && watched[0].revents != (POLLIN | POLLHUP | POLLRDHUP);
}

// The next descriptor that the caller promised, which may have come already; owned by the receiver, or negative.
int promised_descriptor(const caller& who, arrival came) {
    while (came.how == arrival::nothing && wait_for_caller(who)) {
        came = receive_descriptor(who.fd, MSG_DONTWAIT);
    }
    return came.fd;
}

// The environment of the process `pid`: texts, each ended by a NUL, and one NUL more. The caller frees it; nullptr = it
// cannot be read.
char* read_environment(pid_t pid, size_t* ret_size) {
    char path[PATH_MAX];
    (void)snprintf(path, sizeof(path), "/proc/%d/environ", (int)pid);
    const int fd = above_stdio(open(path, O_RDONLY | O_CLOEXEC));
    if (fd < 0) {
        return nullptr;
    }
    char* text = nullptr;
    size_t size = 0;
    ssize_t got = 0;
    do {
        size += (size_t)got;
        char* larger = static_cast<char*>(realloc(text, size + BUFSIZ));
        if (larger == nullptr) {
            got = -1;
            break;
        }
        text = larger;
        got = read(fd, text + size, BUFSIZ);
    } while (got > 0);
    close(fd);
    if (got < 0) {
        free(text);
        return nullptr;
    }
    text[size] = '\0'; // the last read brought nothing, so there is room
    *ret_size = size;
    return text;
}

// Notes the NAME=VALUE texts, in their order. Returns their number; `ret_entries` may be null.
size_t list_entries(char* text, size_t size, char** ret_entries) {
    size_t count = 0;
    for (char* entry = text; entry < text + size; entry += strlen(entry) + 1) {
        const char* equals = strchr(entry, '=');
        if (equals != nullptr && equals != entry) {
            if (ret_entries != nullptr) {
                ret_entries[count] = entry;
            }
            ++count;
        }
    }
    return count;
}

// For qsort(): by name, those of one name in the order of the text.
int compare_entries(const void* left, const void* right) {
    const char* const a = *static_cast<char* const*>(left);
    const char* const b = *static_cast<char* const*>(right);
    size_t i = 0;
    while (a[i] == b[i] && a[i] != '=') {
        ++i;
    }
    if (a[i] != b[i]) {
        return a[i] - b[i];
    }
    return (int)(a - b); // of one text
}

// KEPT: a process worker runs its callback in the caller's environment. An unreadable one leaves ours as it was.
//
// `environ` is assigned, because clearenv() and setenv() take a lock of the C library that another thread of the
// program may have held at the fork, and then nobody here gives back.
void adopt_environment(pid_t pid) {
    static char* adopted_text = nullptr;
    static char** adopted_entries = nullptr;
    size_t size = 0;
    char* text = read_environment(pid, &size);
    if (text == nullptr) {
        return;
    }
    size_t count = list_entries(text, size, nullptr);
    auto** entries = static_cast<char**>(calloc(count + 1, sizeof(char*)));
    if (entries == nullptr) {
        free(text);
        return;
    }
    // The last of one name counts: the others lose their name.
    (void)list_entries(text, size, entries);
    qsort(entries, count, sizeof(char*), compare_entries);
    for (size_t i = 1; i < count; ++i) {
        char* const before = entries[i - 1];
        if (strncmp(before, entries[i], (size_t)(strchr(before, '=') - before) + 1) == 0) {
            *before = '=';
        }
    }
    count = list_entries(text, size, entries);
    entries[count] = nullptr;
    environ = entries;
    // What the last request's callback made of `environ` since, by setenv() for example, is the C library's.
    free(adopted_entries);
    free(adopted_text);
    adopted_entries = entries;
    adopted_text = text;
}

// Runs the callback on a request that has arrived whole. Takes over the caller's connection and both descriptors; they
// are closed when the file cannot be mapped.
void execute(const ks_worker* worker, const directive& request, int connection, int memfd, int extra_fd) {
    ks_io* io = ks_io_create();
    io->memfd = memfd;
    io->sockfd = connection;
    (void)snprintf(io->command, sizeof(io->command), "%.*s", (int)sizeof(request.data), request.data);
    if (!io_try_sync(io)) {
        (void)shutdown(io->sockfd, SHUT_RDWR);
        ks_io_free(io);
        close_foreign(extra_fd);
        return;
    }
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) {
        io->cred.pid = peer.pid;
        io->cred.uid = peer.uid;
        io->cred.gid = peer.gid;
        if ((worker->flags & KS_PROCESS_MODE) != 0) {
            adopt_environment(peer.pid);
        }
    }
    // The callback frees `io` and may look at the command afterwards.
    char command[sizeof(io->command)];
    memcpy(command, io->command, sizeof(command));
    (void)worker->exec(command, io, extra_fd);
}

// Receives one request from an invited caller, and runs it. False = there is none, and `who.fd` is still open.
bool hear_request(const ks_worker* worker, const caller& who) {
    directive request = {};
    arrival came = {};
    if (!wait_for_caller(who)) {
        return false;
    }
    if (receive_with_descriptor(who.fd, MSG_DONTWAIT, &request, &came) != (ssize_t)sizeof(request) ||
        request.type != KS_DIRECTIVE_REQUEST) {
        close_foreign(came.fd);
        return false;
    }
    const int memfd = promised_descriptor(who, came);
    if (memfd < 0) {
        return false;
    }
    int extra_fd = -1;
    if ((request.flags & KS_DIRECTIVE_HAS_FD) != 0) {
        extra_fd = promised_descriptor(who, receive_descriptor(who.fd, MSG_DONTWAIT));
        if (extra_fd < 0) {
            close_foreign(memfd);
            return false;
        }
    }
    if (!is_memory_file(memfd)) {
        close_foreign(memfd);
        close_foreign(extra_fd);
        return false;
    }
    execute(worker, request, who.fd, memfd, extra_fd);
    return true;
}

// A caller's descriptor follows on the link, or `came` with the directive. Ends with the worker ready again.
void take_transfer(const ks_worker* worker, const size_t* waiting, const directive& transfer, arrival came) {
    if (came.how == arrival::nothing) {
        came = receive_descriptor(worker->sockfd[0], 0);
    }
    (void)send_directive(worker->sockfd[0], transfer);
    if (came.how == arrival::descriptor) {
        const caller who = {came.fd, worker->sockfd[0], now_ms() + kPatienceMs, waiting};
        if (!send_directive(who.fd, make_directive(KS_DIRECTIVE_ACCEPTED)) || !hear_request(worker, who)) {
            hang_up(who.fd);
        }
    }
    report_ready(worker);
}

// Handles a message from the producer. False = the loop must end.
bool hear_producer(const ks_worker* worker, const size_t* waiting) {
    directive message = {};
    arrival came = {};
    const ssize_t got = receive_with_descriptor(worker->sockfd[0], 0, &message, &came);
    if (got == 0) {
        return false; // end of file: nothing will ever follow
    }
    if (got != (ssize_t)sizeof(message)) {
        report_ready(worker);
        return true;
    }
    if (message.type == KS_DIRECTIVE_TRANSFER) {
        take_transfer(worker, waiting, message, came);
        return true;
    }
    close_foreign(came.fd);
    return false; // "stop", or what is none of the protocol: drop the link
}

} // namespace

void run_consumer(ks_worker* worker, const size_t* waiting) {
    if (worker->init != nullptr) {
        worker->init(worker->init_argument);
    }
    const int link = worker->sockfd[0];
    worker->pollfd = above_stdio(epoll_create(1));
    (void)set_fd_cloexec(worker->pollfd);
    epoll_event event[] = {{EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP, {}}};
    event->data.fd = link; // shown in /proc/PID/fdinfo
    if (epoll_ctl(worker->pollfd, EPOLL_CTL_ADD, link, event) != 0) {
        close_and_clear(&worker->pollfd); // it would receive nothing, not even the stop; ends the service
    }
    while (worker->pollfd >= 0) {
        const auto ready = TEMP_FAILURE_RETRY(epoll_wait(worker->pollfd, event, std::size(event), -1));
        if (ready != 1 || event->events == (EPOLLIN | EPOLLHUP | EPOLLRDHUP) || !hear_producer(worker, waiting)) {
            close_and_clear(&worker->pollfd);
        }
    }
    // Shuts down both ends of the link. Their numbers are closed by the thread that ends the run, which may still be
    // about to send on one of them; a process worker's own are closed at its exit.
    (void)shutdown(link, SHUT_RDWR);
    if (worker->fini != nullptr) {
        worker->fini(worker->fini_argument);
    }
}

} // namespace ks
