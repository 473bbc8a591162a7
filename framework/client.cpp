// The calling side, and ks_reply().
//
// A request in flight is a ks_io whose socket is registered in a ks_epoll with the object itself as event data; the
// caller of ks_epoll_call() keeps owning it. Whatever fails, io_reset() leaves it empty and usable for the next call.
// ks_call() has one request only and makes no set for it: it waits for that one socket, which saves a quarter of the
// caller's system calls. All else about the two is one loop, perform().
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#define KS_EPOLL_TEXT "epoll && (*(u_int32_t*) epoll == KS_EPOLL_MAGIC)"

namespace {

using ks::is_io;

constexpr unsigned kMinimumTimeoutS = 5;
constexpr size_t kSmallSize = (size_t)64 * 1024;  // of a request or reply for which another system call counts
constexpr size_t kLargestWrite = (size_t)1 << 30; // write(2) takes a little less than twice that at once

bool is_epoll(const ks_epoll* epoll) {
    return epoll != nullptr && epoll->magic == KS_EPOLL_MAGIC;
}

bool is_open(int fd) {
    return fd >= 0 && fcntl(fd, F_GETFD) != -1;
}

// Answers the invitation: the request, then its descriptors. When one cannot be sent (too many in flight, see unix(7))
// the service must not wait for it: hanging up makes the next event an end of the request.
void send_request(const ks_io* io) {
    static_assert(sizeof(directive::data) == sizeof(ks_io::command));
    directive request = ks::make_directive(KS_DIRECTIVE_REQUEST);
    const bool extra = is_open(io->passfd);
    request.flags = extra ? KS_DIRECTIVE_HAS_FD : 0;
    memcpy(request.data, io->command, strnlen(io->command, sizeof(io->command)));
    int fds[2];
    size_t count = 0;
    if (io->memfd >= 0) {
        fds[count++] = io->memfd;
    }
    if (extra) {
        fds[count++] = io->passfd;
    }
    if (ks::send_with_descriptors(io->sockfd, request, {fds, count}) != 1 + count) {
        (void)shutdown(io->sockfd, SHUT_RDWR);
    }
}

// How one event changes the request. One that has ended has ended well with KS_OK.
enum class step { waits, sent, ended };

// `events` as epoll(7) or poll(2) report them: the bits have the same values.
step advance(uint32_t events, ks_io* io, unsigned* ret_code) {
    static_assert(EPOLLERR == POLLERR && EPOLLHUP == POLLHUP && EPOLLRDHUP == POLLRDHUP);
    *ret_code = KS_DISCONNECTED;
    if ((events & (EPOLLERR | EPOLLHUP)) != 0 && (events & EPOLLRDHUP) == 0) {
        return step::ended;
    }
    directive message = {};
    if (!ks::receive_directive(io->sockfd, &message)) {
        return step::ended;
    }
    switch (message.type) {
    case KS_DIRECTIVE_BUSY:
        *ret_code = KS_BUSY;
        return step::ended;
    case KS_DIRECTIVE_PAUSED:
        *ret_code = KS_PAUSED;
        return step::ended;
    case KS_DIRECTIVE_REFUSED:
        *ret_code = KS_REFUSED;
        return step::ended;
    case KS_DIRECTIVE_REPLY:
        *ret_code = KS_OK;
        return step::ended;
    case KS_DIRECTIVE_ACCEPTED:
        send_request(io);
        *ret_code = KS_OK;
        return step::sent;
    default:
        return step::waits;
    }
}

// connect(2) blocks while the service's backlog is full, and for ever when the service has been stopped (SIGSTOP). The
// socket's send timeout bounds that wait, see socket(7); after a signal the wait continues with what is left. The
// timeout stays: nothing else that is sent may take longer either.
unsigned connect_until(int sockfd, const sockaddr_un& address, int64_t give_up_at) {
    for (;;) {
        const int64_t timeout_ms = std::max<int64_t>(give_up_at - ks::now_ms(), 1); // 0 would mean without end
        const timeval timeout = {(time_t)(timeout_ms / 1000), (suseconds_t)(timeout_ms % 1000 * 1000)};
        (void)setsockopt(sockfd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        if (connect(sockfd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            return KS_OK;
        }
        if (errno != EINTR) {
            return errno == EAGAIN ? KS_TIMEOUT : KS_NO_SERVICE;
        }
    }
}

// Checks the arguments, connects and makes `io` a request. Afterwards it waits for its invitation.
// @param give_up_at  The deadline for connecting, by now_ms().
unsigned open_request(const char* name, const char* command, ks_io* io, int passfd, int64_t give_up_at) {
    KS_REQUIRE_IN("ks_epoll_call", is_io(io), KS_IO_TEXT, "cannot make incorrect ks_io %p request", (void*)io);
    if (name == nullptr || strlen(name) > MAXIMUM_NAME_SIZE || command == nullptr ||
        strlen(command) >= sizeof(io->command)) {
        return KS_BAD_ARGUMENT;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (name[0] == '@') {
        // KEPT: unlike ks_create(), no "/" is asked for
        (void)snprintf(address.sun_path, ks::kSocketPathSize, "%s", name + 1);
    } else {
        KS_REQUIRE_IN("ks_epoll_call", ks::hashed_socket_path(name, address.sun_path, ks::kSocketPathSize),
                      "SHA1Result(&sha1)", "generate request [%s] SHA1 fail", name);
    }

    ks::close_and_clear(&io->sockfd); // left by an earlier call that found no service
    io->sockfd = ks::above_stdio(socket(AF_UNIX, SOCK_STREAM, 0));
    // set_fd_cloexec() would find nothing to change on a new socket.
    KS_REQUIRE_IN("ks_epoll_call", io->sockfd >= 0,
                  "(io->sockfd = socket(AF_UNIX, SOCK_STREAM, 0)) >= 0 && set_fd_cloexec(io->sockfd)",
                  "create request socket fail");
    const unsigned connected = connect_until(io->sockfd, address, give_up_at);
    if (connected != KS_OK) {
        return connected;
    }
    ks::io_shm(io);
    io->passfd = passfd;
    (void)snprintf(io->command, sizeof(io->command), "%s", command);
    return KS_OK;
}

// What perform() works on: the requests of a set, or one that is in no set.
struct requests {
    const ks_epoll* set;
    ks_io* alone; // NULL = those of the set
};

// Waits up to `timeout_ms` for one event. A signal does not make that time longer.
// @return The request that the event belongs to, NULL = there was none.
ks_io* wait_for_event(const requests& of, unsigned timeout_ms, uint32_t* ret_events) {
    const int64_t give_up_at = ks::now_ms() + timeout_ms;
    if (of.alone != nullptr) {
        pollfd watched = {of.alone->sockfd, POLLIN | POLLRDHUP, {}};
        const auto ready = TEMP_FAILURE_RETRY(poll(&watched, 1, ks::wait_time(give_up_at)));
        *ret_events = (uint32_t)watched.revents;
        return ready > 0 ? of.alone : nullptr;
    }
    epoll_event event = {}; // stays so when there is none
    (void)TEMP_FAILURE_RETRY(epoll_wait(of.set->fd, &event, 1, ks::wait_time(give_up_at)));
    *ret_events = event.events;
    return static_cast<ks_io*>(event.data.ptr);
}

void end_connection(const requests& of, ks_io* io) {
    if (of.alone == nullptr) { // a child may hold a copy of the socket: closing ours would not take it out of the set
        (void)epoll_ctl(of.set->fd, EPOLL_CTL_DEL, io->sockfd, nullptr);
    }
    (void)shutdown(io->sockfd, SHUT_RDWR);
    ks::close_and_clear(&io->sockfd);
}

// Advances the requests by one event, see ks_epoll_perform(). A directive of an unknown type does not count: the wait
// restarts with the whole of `timeout_ms`.
ks_io* perform(const requests& of, unsigned timeout_ms, unsigned* ret_code) {
    uint32_t events{};
    while (ks_io* io = wait_for_event(of, timeout_ms, &events)) {
        switch (advance(events, io, ret_code)) {
        case step::waits:
            break;
        case step::sent:
            return nullptr;
        case step::ended:
            end_connection(of, io);
            if (*ret_code != KS_OK) {
                ks::io_reset(io);
            }
            return io;
        }
    }
    *ret_code = KS_TIMEOUT;
    return nullptr;
}

// Shows the reply of a request that has ended with KS_OK, unless the service left a file behind that cannot be mapped.
void map_reply(ks_io* io, unsigned* code) {
    if (*code == KS_OK && !ks::io_try_sync(io)) {
        ks::io_reset(io);
        *code = KS_DISCONNECTED;
    }
}

struct payload {
    const char* data;
    size_t size;
};

// Appends the payload to the memory file. False = out of memory or over a limit: half a request would be another
// request. Not tried again after a part, which beyond RLIMIT_FSIZE raises SIGXFSZ.
bool store(ks_io* io, const payload& request) {
    for (size_t written = 0; written < request.size;) {
        const size_t piece = std::min(request.size - written, kLargestWrite);
        if (ks_io_write(io, request.data + written, piece) != (ssize_t)piece) {
            return false;
        }
        written += piece;
    }
    return true;
}

// One request from its connection to its reply, which is not mapped. The payload is stored in between, while the
// service hands the connection over. Whatever but KS_OK comes out, `io` is empty.
unsigned call(const char* name, const char* command, ks_io* io, const payload& request, unsigned timeout_s,
              int passfd) {
    const int64_t begin = ks::now_ms();
    const int64_t allowed = (int64_t)std::max(timeout_s, kMinimumTimeoutS) * 1000;
    const int64_t give_up_at = begin + allowed;
    unsigned code = open_request(name, command, io, passfd, give_up_at);
    if (code == KS_OK && !store(io, request)) {
        code = KS_DISCONNECTED;
    }
    if (code == KS_OK) {
        int64_t remaining = allowed;
        // Connecting has taken some of the first wait's time. After a pass, `remaining` has it taken off, too.
        while (perform({nullptr, io}, (unsigned)std::min<int64_t>(remaining, ks::wait_time(give_up_at)), &code) ==
               nullptr) {
            // KEPT: each pass takes the whole time since the start off the budget, not just its own, so a request that
            // waited for a worker has less than the clock says. Callers have tuned their time-outs to it.
            const int64_t elapsed = ks::now_ms() - begin;
            if (elapsed >= remaining) {
                code = KS_TIMEOUT; // also when the last pass was the one that sent the request
                break;
            }
            remaining -= elapsed;
        }
    }
    if (code != KS_OK) {
        ks::io_reset(io);
    }
    return code;
}

// The reply of a request that has ended with KS_OK as a malloc()ed copy, or NULL and *code when it cannot be mapped or
// read.
//
// Not from a mapping: the service has the file open and could truncate it under us. But a file that is not small must
// be mappable before memory of its size is allocated.
void* copy_reply(ks_io* io, size_t* ret_size, unsigned* code) {
    char small[4096]; // most replies fit, and take one system call
    const ssize_t first = pread(io->memfd, small, sizeof(small), 0);
    if (first < 0) {
        *code = KS_DISCONNECTED;
    }
    size_t copied = (size_t)std::max<ssize_t>(first, 0);
    size_t size = copied;
    if (copied == sizeof(small)) {
        map_reply(io, code);
        size = io->shared_size;
    }
    if (*code != KS_OK) {
        return nullptr;
    }
    char* reply = static_cast<char*>(malloc(size));
    KS_REQUIRE_IN("ks_ez_call", reply != nullptr, "(*recv = realloc(*recv, io->shared_size))",
                  "cannot realloc recv memory");
    memcpy(reply, small, std::min(copied, size));
    while (copied < size) {
        const ssize_t count = pread(io->memfd, reply + copied, size - copied, (off_t)copied);
        if (count < 0) {
            free(reply);
            *code = KS_DISCONNECTED;
            return nullptr;
        }
        if (count == 0) { // truncated meanwhile
            break;
        }
        copied += (size_t)count;
    }
    *ret_size = std::min(copied, size);
    return reply;
}

} // namespace

ks_epoll* ks_epoll_create(void) {
    auto* epoll = static_cast<ks_epoll*>(calloc(1, sizeof(ks_epoll)));
    KS_REQUIRE(epoll != nullptr, "(epoll = calloc(1, sizeof(ks_epoll)))", "alloc epoll memory fail");
    epoll->fd = ks::above_stdio(epoll_create(1));
    KS_REQUIRE(set_fd_cloexec(epoll->fd), // 0 for -1, too
               "((epoll->fd = epoll_create(1)) >= 0 && set_fd_cloexec(epoll->fd))", "create request epoll fail");
    epoll->magic = KS_EPOLL_MAGIC;
    return epoll;
}

unsigned ks_epoll_call(ks_epoll* epoll, const char* name, const char* command, ks_io* io, int passfd) {
    KS_REQUIRE(is_epoll(epoll), KS_EPOLL_TEXT, "cannot call incorrect ks_epoll %p", (void*)epoll);
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot make incorrect ks_io %p request", (void*)io);
    const unsigned code = open_request(name, command, io, passfd, ks::now_ms() + kMinimumTimeoutS * 1000);
    if (code != KS_OK) {
        return code;
    }
    epoll_event event = {};
    event.events = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP;
    event.data.ptr = io;
    KS_REQUIRE(epoll_ctl(epoll->fd, EPOLL_CTL_ADD, io->sockfd, &event) == 0,
               "epoll_ctl(epoll->fd, EPOLL_CTL_ADD, io->sockfd, ev) == 0", "epoll add request sockfd fail");
    return KS_OK;
}

ks_io* ks_epoll_perform(ks_epoll* epoll, unsigned timeout_ms, unsigned* status) {
    KS_REQUIRE(is_epoll(epoll), KS_EPOLL_TEXT, "cannot perform incorrect ks_epoll %p", (void*)epoll);
    unsigned ignored{};
    unsigned* code = status != nullptr ? status : &ignored;
    ks_io* io = perform({epoll, nullptr}, timeout_ms, code);
    if (io != nullptr) {
        map_reply(io, code);
    }
    return io;
}

void ks_epoll_cancel(ks_epoll* epoll, ks_io* io) {
    KS_REQUIRE(is_epoll(epoll), KS_EPOLL_TEXT, "cannot cancel incorrect ks_epoll %p", (void*)epoll);
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot cancel incorrect ks_io %p", (void*)io);
    if (io->sockfd != -1) {
        end_connection({epoll, nullptr}, io);
    }
}

void ks_epoll_free(ks_epoll* epoll) {
    KS_REQUIRE(is_epoll(epoll), KS_EPOLL_TEXT, "cannot free incorrect ks_epoll %p", (void*)epoll);
    epoll->magic = 0;
    close(epoll->fd);
    free(epoll);
}

unsigned ks_call(const char* name, const char* command, ks_io* io, unsigned timeout_s, int passfd) {
    unsigned code = call(name, command, io, {nullptr, 0}, timeout_s, passfd);
    map_reply(io, &code);
    return code;
}

unsigned ks_ez_call(const char* name, const char* command, const void* data, size_t dsize, void** recv, size_t* rsize,
                    unsigned timeout_s, int passfd) {
    KS_REQUIRE(data != nullptr || dsize == 0, "data != NULL || (data == NULL && dsize == 0U)",
               "data memory access violation with size (%zu)", dsize);
    KS_REQUIRE(recv == nullptr || *recv == nullptr, "(recv == NULL || *recv == NULL)", "recv memory access violation");
    ks_io* io = ks_io_create();
    const payload request = {static_cast<const char*>(data), dsize};
    const bool small = dsize <= kSmallSize; // written while the service hands the connection over
    unsigned code = KS_DISCONNECTED;
    if (small || store(io, request)) {
        code = call(name, command, io, small ? request : payload{nullptr, 0}, timeout_s, passfd);
    }
    if (code == KS_OK && recv != nullptr) {
        size_t size = 0;
        *recv = copy_reply(io, &size, &code);
        if (code == KS_OK && rsize != nullptr) {
            *rsize = size;
        }
    }
    ks_io_free(io);
    return code;
}

void ks_reply(ks_io* io) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot response incorrect ks_io %p", (void*)io);
    (void)ks::send_directive(io->sockfd, ks::make_directive(KS_DIRECTIVE_REPLY));
    (void)shutdown(io->sockfd, SHUT_RDWR);
}
