#include "plain_exchange.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// One data byte, one descriptor. `control` must outlive the result.
struct descriptor_message {
    char byte = 0;
    iovec data = {&byte, sizeof(byte)};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header = {};

    descriptor_message() {
        header.msg_iov = &data;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
    }
};

bool send_descriptor(int socket_fd, int fd) {
    descriptor_message message;
    cmsghdr* rights = CMSG_FIRSTHDR(&message.header);
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    memcpy(CMSG_DATA(rights), &fd, sizeof(fd));
    return sendmsg(socket_fd, &message.header, MSG_NOSIGNAL) == 1;
}

unique_fd receive_descriptor(int socket_fd) {
    descriptor_message message;
    int fd = -1;
    if (recvmsg(socket_fd, &message.header, MSG_CMSG_CLOEXEC) == 1) {
        const cmsghdr* rights = CMSG_FIRSTHDR(&message.header);
        if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS) {
            memcpy(&fd, CMSG_DATA(rights), sizeof(fd));
        }
    }
    return unique_fd(fd);
}

void answer(const unique_fd& caller) {
    const unique_fd file = receive_descriptor(caller.get());
    struct stat st = {};
    if (!file.ok() || fstat(file.get(), &st) != 0) {
        return;
    }
    const auto size = static_cast<size_t>(st.st_size);
    void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (data == MAP_FAILED) {
        return;
    }
    benchmark::DoNotOptimize(add_up(data, size));
    (void)munmap(data, size);
    const char byte = 1;
    (void)send(caller.get(), &byte, sizeof(byte), MSG_NOSIGNAL);
}

} // namespace

unsigned long add_up(const void* data, size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    unsigned long sum = 0;
    for (size_t i = 0; i < size; i += sizeof(uint64_t)) {
        uint64_t word = 0;
        memcpy(&word, bytes + i, size - i < sizeof(word) ? size - i : sizeof(word));
        sum += word;
    }
    return sum;
}

plain_server::plain_server(std::string path)
    : path_(std::move(path)), listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = address_of(path_);
    (void)unlink(path_.c_str());
    if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(listener_.get(), 128) == 0) {
        thread_ = std::thread([this] { serve(); });
    }
}

plain_server::~plain_server() {
    (void)shutdown(listener_.get(), SHUT_RDWR);
    if (thread_.joinable()) {
        thread_.join();
    }
    (void)unlink(path_.c_str());
}

void plain_server::serve() {
    for (;;) {
        const unique_fd caller(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (caller.ok()) {
            answer(caller);
        } else if (errno != EINTR) {
            return;
        }
    }
}

bool plain_call(const std::string& path, std::string_view payload) {
    const unique_fd file(memfd_create("plain", MFD_CLOEXEC));
    while (!payload.empty()) {
        const ssize_t count = write(file.get(), payload.data(), payload.size());
        if (count <= 0) {
            return false;
        }
        payload.remove_prefix(static_cast<size_t>(count));
    }
    const unique_fd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = address_of(path);
    char byte = 0;
    return connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
           send_descriptor(connection.get(), file.get()) && recv(connection.get(), &byte, sizeof(byte), 0) == 1;
}
