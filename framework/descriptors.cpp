// File descriptors and socket messages: the fixed 259-byte directive, and one descriptor per message.
//
// File descriptor passing (unix(7), SCM_RIGHTS) has four classic pitfalls, all handled here: a control buffer of
// CMSG_SPACE(one int) has room for a second descriptor on 64-bit machines, because of its alignment, so every
// descriptor that arrives is looked at and only the first is kept; received descriptors are close-on-exec from the
// start (MSG_CMSG_CLOEXEC); a control message of another kind is not mistaken for one; and closing a peer's file can
// take as long as the peer likes, so nobody waits for that (close_foreign()).
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <pthread.h>
#include <span>
#include <sys/socket.h>
#include <unistd.h>

static_assert(sizeof(directive) == 259, "the directive is a wire format");
static_assert(offsetof(directive, data) == 2, "the directive is a wire format");

uint32_t set_fd_cloexec(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        return 0;
    }
    // KEPT: status flags (F_SETFL), not descriptor flags. The kernel ignores the access mode bits here.
    return fcntl(fd, F_SETFL, flags | FD_CLOEXEC) != -1 ? 1 : 0;
}

namespace {

constexpr size_t kClosingStackSize = (size_t)256 * 1024; // what any processor asks for at least, and sanitizers add

bool zero_pending = false; // descriptor 0 has a closing thread that has not come to it; accessed atomically

void* close_descriptor(void* number) {
    const int fd = (int)(intptr_t)number;
    if (fd != STDIN_FILENO || ks::claim_zero()) {
        close(fd);
    }
    return nullptr;
}

} // namespace

namespace ks {

int above_stdio(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const bool cloexec = (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    const int moved = fcntl(fd, cloexec ? F_DUPFD_CLOEXEC : F_DUPFD, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

void close_and_clear(int32_t* fd) {
    if (*fd >= 0) {
        const int saved = errno;
        close(*fd);
        errno = saved;
        *fd = -1;
    }
}

void close_foreign(int fd) {
    if (fd < 0) {
        return;
    }
    int domain{};
    socklen_t size = sizeof(domain);
    if (fcntl(fd, F_GET_SEALS) >= 0 ||
        (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX)) {
        close(fd); // what callers pass as a rule, and what no file system has a say in
        return;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, kClosingStackSize);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // inherited: a signal of the process must not be left to that thread
    if (fd == STDIN_FILENO) {
        __atomic_store_n(&zero_pending, true, __ATOMIC_RELEASE);
    }
    pthread_t thread = {};
    const bool started = pthread_create(&thread, &attr, close_descriptor, (void*)(intptr_t)fd) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attr);
    if (!started) {
        close_descriptor((void*)(intptr_t)fd);
    }
}

bool claim_zero() {
    return __atomic_exchange_n(&zero_pending, false, __ATOMIC_ACQ_REL);
}

directive make_directive(uint8_t type) {
    directive message = {};
    message.type = type;
    return message;
}

namespace {

// One data byte, with or without a descriptor. `message` points into the object.
struct envelope {
    char byte = 0;
    iovec data = {&byte, sizeof(byte)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};

    // A message that carries `fd`, unless it is negative.
    explicit envelope(int fd) {
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        if (fd >= 0) {
            message.msg_control = control;
            message.msg_controllen = CMSG_LEN(sizeof(int));
            cmsghdr* header = CMSG_FIRSTHDR(&message);
            header->cmsg_len = CMSG_LEN(sizeof(int));
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            memcpy(CMSG_DATA(header), &fd, sizeof(fd));
        }
    }
    envelope(const envelope&) = delete;
    envelope& operator=(const envelope&) = delete;

    void make_room() {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
    }
};

// The first descriptor that a received message brought, numbered 3 or above, or -1. The others are closed.
int take_descriptor(msghdr* message) {
    int kept = -1;
    for (cmsghdr* header = CMSG_FIRSTHDR(message); header != nullptr; header = CMSG_NXTHDR(message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd{};
            memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(fd));
            if (kept < 0) {
                kept = fd;
            } else {
                close_foreign(fd);
            }
        }
    }
    if (kept >= 0 && kept <= STDERR_FILENO) { // as above_stdio(), but for a peer's
        const int moved = fcntl(kept, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        close_foreign(kept);
        kept = moved;
    }
    return kept;
}

} // namespace

bool send_directive(int sockfd, const directive& message) {
    return TEMP_FAILURE_RETRY(send(sockfd, &message, sizeof(message), MSG_DONTWAIT | MSG_NOSIGNAL)) ==
           (ssize_t)sizeof(message);
}

bool receive_directive(int sockfd, directive* ret_message) {
    return TEMP_FAILURE_RETRY(recv(sockfd, ret_message, sizeof(*ret_message), MSG_DONTWAIT)) ==
           (ssize_t)sizeof(*ret_message);
}

bool send_descriptor(int sockfd, int fd, int flags) {
    envelope letter(fd);
    return TEMP_FAILURE_RETRY(sendmsg(sockfd, &letter.message, flags | MSG_NOSIGNAL)) == 1;
}

size_t send_with_descriptors(int sockfd, const directive& message, std::span<const int> fds) {
    iovec text = {const_cast<directive*>(&message), sizeof(message)};
    envelope letters[] = {envelope(!fds.empty() ? fds.front() : -1), envelope(fds.size() > 1 ? fds.back() : -1)};
    mmsghdr messages[1 + std::size(letters)] = {};
    messages[0].msg_hdr.msg_iov = &text;
    messages[0].msg_hdr.msg_iovlen = 1;
    messages[1].msg_hdr = letters[0].message;
    messages[2].msg_hdr = letters[1].message;
    return (size_t)std::max(sendmmsg(sockfd, messages, (unsigned)(1 + fds.size()), MSG_DONTWAIT | MSG_NOSIGNAL), 0);
}

arrival receive_descriptor(int sockfd, int flags) {
    envelope letter(-1);
    letter.make_room();
    if (TEMP_FAILURE_RETRY(recvmsg(sockfd, &letter.message, flags | MSG_CMSG_CLOEXEC)) < 0) {
        return {errno == EAGAIN ? arrival::nothing : arrival::failed, -1};
    }
    const int fd = take_descriptor(&letter.message);
    return {fd >= 0 ? arrival::descriptor : arrival::failed, fd};
}

ssize_t receive_with_descriptor(int sockfd, int flags, directive* ret_message, arrival* ret_came) {
    envelope letter(-1);
    letter.make_room();
    iovec parts[] = {{ret_message, sizeof(*ret_message)}, letter.data};
    letter.message.msg_iov = parts;
    letter.message.msg_iovlen = std::size(parts);
    *ret_came = {arrival::nothing, -1};
    const ssize_t got = TEMP_FAILURE_RETRY(recvmsg(sockfd, &letter.message, flags | MSG_CMSG_CLOEXEC));
    if (got <= 0) {
        return got;
    }
    const int fd = take_descriptor(&letter.message);
    if (got <= (ssize_t)sizeof(*ret_message)) {
        close_foreign(fd); // sent with the directive itself, where none belongs
        return got;
    }
    *ret_came = {fd >= 0 ? arrival::descriptor : arrival::failed, fd};
    return sizeof(*ret_message);
}

int64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto time = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

int wait_time(int64_t give_up_at) {
    return (int)std::clamp<int64_t>(give_up_at - now_ms(), 0, INT_MAX);
}

} // namespace ks
