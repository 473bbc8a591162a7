// What the subcommands of ksctl share: how one is declared, the exit statuses, and how messages and output leave.
//
// A subcommand is one file, cmd_<name>.cpp, with one record. ksctl.cpp lists the records; adding a subcommand is a file
// and a row.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace ksctl {

/// Exit statuses; scripts rely on them. From 11 on they are 10 + the library's result code, and from 18 our own.
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
    kSaysFailure = 19,  ///< there is a reply, and it says failure
    kNotWell = 20,      ///< doctor has found something
};

struct limits {
    double least;
    double most;
};

/// An option of a subcommand, or a word of its command line.
struct option {
    const char* name; ///< "--name", "-n,--name", or for a word "NAME".
    /// Where the value goes; what stands there before is the default. A bool is a flag. A word has to be there, unless
    /// it is a std::optional.
    std::variant<bool*, unsigned*, double*, std::string*, std::optional<std::string>*> value;
    const char* help;
    const char* value_name = "";                ///< What the help calls the value that an option takes.
    std::optional<limits> range = std::nullopt; ///< Of a number.
};

/// What a subcommand declares. The parser's header takes longer to compile than all the rest of ksctl: ksctl.cpp alone
/// includes it.
struct declaration {
    std::vector<option> options;
    std::function<int()> run; ///< Runs it once the options have their values. Its result is the exit status.
};

/// One subcommand.
struct command {
    const char* name;
    const char* summary; ///< One line.
    const char* details; ///< Further lines of its help text, or "".
    const char* example; ///< Ends the help text.
    declaration (*declare)();
};

extern const command cmd_call;
extern const command cmd_commands;
extern const command cmd_describe;
extern const command cmd_doctor;
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
