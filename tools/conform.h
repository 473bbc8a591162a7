// ksctl conform: checks what a service or a client sends on its sockets against docs/protocol.md.
//
// A check's name is the document's own sentence (the test suite looks it up there), so that a failure leads to the
// rule. conform_service.cpp plays a caller, conform_client.cpp a service; both implement the wire protocol themselves,
// as the library would never violate it.
#pragma once

#include "unique_fd.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ksctl::conform {

/// Thrown where no further check makes sense; the reason has been reported.
struct stopped {
    int status; ///< ksctl's.
};

/// Prints each check as it ends, and counts. Throws `stopped` when that cannot be printed.
class report {
public:
    /// `trouble` is what was seen instead; empty = the rule is kept.
    void add(const char* rule, const std::string& trouble);
    void skip(const char* rule, const std::string& why);
    /// Prints the totals. @return The exit status: 0 if no check failed.
    int end();

private:
    void print_line(const char* mark, const char* rule, const std::string& remark);

    int passed_ = 0;
    int failed_ = 0;
    int skipped_ = 0;
};

/// The result of one receive. No bytes = the connection has ended, or `silent`.
struct heard {
    std::string bytes;
    std::vector<unique_fd> descriptors;
    bool silent = false; ///< nothing came in time
};

/// Timeout for each step of the peer. Set once, before the checks.
inline std::chrono::milliseconds patience{30000};
/// How long to wait where the rule is that nothing arrives.
constexpr std::chrono::milliseconds kListening{200};

/// "`what`: `trouble`", if there is any.
std::string with(const char* what, const std::string& trouble);

/// Receives once, at most `size` bytes and 8 descriptors.
heard hear(int socket, size_t size, std::chrono::milliseconds longest = patience);
/// What is wrong with `message` as a directive of type `type`; empty = nothing.
std::string wrong_directive(const heard& message, uint8_t type);
/// A whole directive.
std::string make_directive(uint8_t type, uint8_t flags = 0, std::string_view data = "");
/// Sends without SIGPIPE; that the peer is gone shows at the next receive.
void send_bytes(int socket, std::string_view bytes);
/// Sends one data byte with the descriptors, which may be none.
void send_descriptors(int socket, const std::vector<int>& descriptors);
/// The file's content, read without moving its offset.
std::string content_of(int fd);
/// A memory file that holds `text`, with its offset at the end.
unique_fd memory_file(std::string_view text, unsigned flags = 0);

// Both return the exit status, or throw `stopped`.

/// Checks the service that listens at `path`, which must reply to `command` with `request`.
/// @param slow  Also run the check that takes half a minute.
int check_service(const std::string& path, const std::string& command, const std::string& request, bool slow);
/// Checks the program: run with SERVICE, COMMAND and REQUEST appended to its arguments, it must print the reply, or
/// without one exit with a non-zero status.
int check_client(const std::vector<std::string>& program);

} // namespace ksctl::conform
