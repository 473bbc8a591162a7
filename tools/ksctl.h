// What the subcommands of ksctl share: how one is declared, the exit statuses, and how messages and output leave.
//
// A subcommand is one file, cmd_<name>.cpp, with one record. ksctl.cpp lists the records; adding a subcommand is a file
// and a row.
#pragma once

#include <functional>
#include <string_view>

namespace CLI {
class App;
}

namespace ksctl {

/// Exit statuses; scripts rely on them. From 11 on they are 10 + the library's result code, and one of our own.
enum exit_status : int {
    kSuccess = 0,
    kFailure = 1,       ///< a file or standard output, or anything else on this side
    kUsage = 2,         ///< the command line
    kTimeout = 11,      ///< nothing happened within the time allowed
    kNoService = 12,    ///< nobody listens on the service's socket
    kPaused = 13,       ///< the service is paused
    kRefused = 14,      ///< the service refused the call
    kDisconnected = 15, ///< the connection failed before the request was taken
    kBusy = 16,         ///< the service's waiting list is full
    kBadArgument = 17,  ///< the service name or the command is too long, or no name at all
    kNoReply = 18,      ///< the request was taken, and the connection ended without a reply
};

/// One subcommand.
struct command {
    const char* name;
    const char* summary; ///< One line.
    const char* details; ///< Further lines of its help text, or "".
    const char* example; ///< Ends the help text.
    /// Declares the options on `app` and returns what runs once they are parsed. Its result is the exit status.
    std::function<int()> (*declare)(CLI::App& app);
};

extern const command cmd_call;
extern const command cmd_commands;
extern const command cmd_conform;
extern const command cmd_listen;
extern const command cmd_list;
extern const command cmd_path;
extern const command cmd_ping;
extern const command cmd_wait;

/// Parses the command line and runs the subcommand. @return The exit status.
int run(int argc, char** argv);

/// Writes "ksctl: <message>" and a newline to standard error. @return `status`, so that a caller can fail in one line.
[[gnu::format(printf, 2, 3)]] int fail(int status, const char* format, ...);

/// Writes all of `text` to standard output at once. @return False when that failed, which has been reported then.
[[nodiscard]] bool print(std::string_view text);

} // namespace ksctl
