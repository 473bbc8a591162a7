#include "loopback.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

[[noreturn]] void fail(const char* step) {
    throw std::system_error(errno, std::generic_category(), step);
}

sockaddr_in loopback_address(const char* address, std::uint16_t port) {
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    (void)inet_pton(AF_INET, address, &at.sin_addr);
    return at;
}

unique_fd tcp_socket() {
    unique_fd fd = above_standard_streams(unique_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    if (!fd.ok()) {
        fail("make a socket");
    }
    return fd;
}

} // namespace

loopback_server::loopback_server(std::function<void(int fd)> serve)
    : serve_(std::move(serve)), listener_(tcp_socket()) {
    sockaddr_in at = loopback_address("127.0.0.1", 0);
    socklen_t size = sizeof at;
    auto* address = reinterpret_cast<sockaddr*>(&at);
    if (bind(listener_.get(), address, size) != 0 || listen(listener_.get(), 8) != 0 ||
        getsockname(listener_.get(), address, &size) != 0) {
        fail("listen on the loopback device");
    }
    port_ = ntohs(at.sin_port);
    thread_ = std::thread([this] { accept_clients(); });
}

loopback_server::~loopback_server() {
    stopping_ = true;
    (void)shutdown(listener_.get(), SHUT_RDWR); // ends the accept
    thread_.join();
}

void loopback_server::accept_clients() {
    while (!stopping_) {
        const unique_fd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.ok()) {
            serve_(client.get());
        }
    }
}

void send_text(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (count <= 0) {
            return;
        }
        done += static_cast<std::size_t>(count);
    }
}

std::string receive_line(int fd) {
    std::string line;
    for (char byte = 0; recv(fd, &byte, 1, 0) == 1 && byte != '\n';) {
        line += byte;
    }
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return line;
}

std::string http_get(std::uint16_t port, const char* source) {
    const unique_fd fd = tcp_socket();
    const sockaddr_in from = loopback_address(source, 0);
    const sockaddr_in to = loopback_address("127.0.0.1", port);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0 ||
        connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        return "";
    }
    send_text(fd.get(), "GET / HTTP/1.0\r\nHost: vexhost\r\n\r\n");
    std::string answer;
    char chunk[4096];
    for (ssize_t count = 0; (count = recv(fd.get(), chunk, sizeof chunk, 0)) > 0;) {
        answer.append(chunk, static_cast<std::size_t>(count));
    }
    return answer;
}
