// Servers on the loopback device, which is the host's own, and the plain HTTP that end-to-end tests speak.
#ifndef VEXPROD_TESTS_HANDLERS_LOOPBACK_H
#define VEXPROD_TESTS_HANDLERS_LOOPBACK_H

#include "unique_fd.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

/// A TCP server on 127.0.0.1 that serves one connection at a time on a thread of its own, until scope end.
class loopback_server {
public:
    /// @param serve  Speaks with one client; the descriptor is closed afterwards.
    explicit loopback_server(std::function<void(int fd)> serve);
    loopback_server(const loopback_server&) = delete;
    loopback_server& operator=(const loopback_server&) = delete;
    ~loopback_server();

    [[nodiscard]] std::uint16_t port() const { return port_; }

private:
    void accept_clients();

    std::function<void(int fd)> serve_;
    unique_fd listener_;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

/// Writes all of `text`; a peer that is gone ends it.
void send_text(int fd, const std::string& text);

/// Reads up to and with the next line feed. @return The line without its CR LF; empty at the end as well.
std::string receive_line(int fd);

/// GETs "/" from 127.0.0.1:`port` as the client `source`, another loopback address.
/// @return The whole answer; empty when nobody listens.
std::string http_get(std::uint16_t port, const char* source = "127.0.0.1");

#endif
