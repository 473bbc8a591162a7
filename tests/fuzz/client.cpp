// What a caller hears from its service: directives of every kind and order, descriptors where none belong, and a memory
// file that the service changes under it.
//
// Script: first a byte, whose lowest bit chooses the call that waits or the one of a set. Then steps of one byte each:
// 0 to 63 one message (see conversation.h), others what becomes of the request's memory file once it has come.
#include "conversation.h"
#include "kservice.h"

#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

namespace {

constexpr const char* kName = "@/tmp/fuzz-client.sock";

int listening_socket() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kName + 1);
    (void)unlink(address.sun_path);
    require(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 && listen(fd, 1) == 0,
            "a socket can be published");
    return fd;
}

// The memory file of a request, which comes when the caller has been invited. Nothing when it does not.
unique_fd receive_memory_file(int caller) {
    char text[300];
    iovec data = {text, sizeof(text)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    for (;;) {
        pollfd watched = {caller, POLLIN, 0};
        constexpr int kPatienceMs = 20;
        if (poll(&watched, 1, kPatienceMs) <= 0) {
            return {};
        }
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        if (recvmsg(caller, &message, MSG_CMSG_CLOEXEC) <= 0) {
            return {};
        }
        if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(header), sizeof(fd));
            return unique_fd(fd);
        }
    }
}

// The service: says what the script has, and hangs up.
void serve(int listening, script from) {
    const unique_fd caller(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    unique_fd file;
    bool waited = false;
    while (!from.at_end()) {
        const unsigned what = from.byte();
        if (what < 64) {
            say(caller.get(), from);
            continue;
        }
        if (!waited) {
            file = receive_memory_file(caller.get());
            waited = true;
        }
        if (what < 128) { // at most 1 MiB: a service that makes a reply of any size can always exhaust its caller
            (void)!ftruncate(file.get(), off_t{1} << (what % 21U));
        } else if (what < 192) {
            (void)!ftruncate(file.get(), 0);
            const std::string_view text = from.text(what - 128);
            (void)!pwrite(file.get(), text.data(), text.size(), 0);
        } else {
            (void)shutdown(caller.get(), SHUT_WR);
        }
    }
}

void check_code(unsigned code) {
    require(code == KS_OK || (code >= KS_PAUSED && code <= KS_BUSY), "a result that a service can bring about");
}

void call_and_wait() {
    void* reply = nullptr;
    std::size_t size = 0;
    constexpr std::string_view kText = "request";
    const unsigned code = ks_ez_call(kName, "command", kText.data(), kText.size(), &reply, &size, 60, -1);
    check_code(code);
    require(code == KS_OK || reply == nullptr, "no reply without success");
    std::free(reply);
}

void call_in_set() {
    ks_epoll* set = ks_epoll_create();
    ks_io* io = ks_io_create();
    unsigned code = ks_epoll_call(set, kName, "command", io, STDERR_FILENO);
    require(code == KS_OK, "the service is there");
    ks_io* ended = nullptr;
    while (ended == nullptr) {
        constexpr unsigned kPatienceMs = 60000;
        ended = ks_epoll_perform(set, kPatienceMs, &code);
        require(ended != nullptr || code == KS_OK, "a service that hangs up ends the request");
    }
    require(ended == io, "the request of the set");
    check_code(code);
    ks_io_free(io);
    ks_epoll_free(set);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int listening = listening_socket(); // for as long as the process lives
    const std::size_t before = open_descriptors();
    script from(data, size);
    const bool in_set = (from.byte() & 1U) != 0;
    std::thread service(serve, listening, from);
    if (in_set) {
        call_in_set();
    } else {
        call_and_wait();
    }
    service.join();
    (void)require_open_descriptors(before);
    return 0;
}
