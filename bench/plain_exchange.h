// What a round trip costs at the least when its payload travels in a memory file: connect, pass the file's descriptor,
// be answered with one byte, close. The framework's call is measured beside it.
#pragma once

#include "unique_fd.h"

#include <string>
#include <string_view>
#include <thread>

/// A thread that accepts a connection, receives one descriptor, maps the file, reads all of it, answers one byte and
/// hangs up; then the next.
class plain_server {
public:
    explicit plain_server(std::string path);
    ~plain_server();
    plain_server(const plain_server&) = delete;
    plain_server& operator=(const plain_server&) = delete;

private:
    void serve();

    std::string path_;
    unique_fd listener_;
    std::thread thread_;
};

/// One exchange with the server at `path`. @return False when any step failed.
bool plain_call(const std::string& path, std::string_view payload);

/// Looks at every byte, the way both services do with a request.
unsigned long add_up(const void* data, size_t size);
