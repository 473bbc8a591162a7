// What the subcommands of ksctl share: their declaration, the exit statuses, and output of messages and results.
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

/// Exit statuses; scripts rely on them. 11 to 17 are 10 + the library's result code.
enum exit_status : int {
    kSuccess = 0,
    kFailure = 1,       ///< a local failure, such as a file or standard output
    kUsage = 2,         ///< the command line is wrong
    kTimeout = 11,      ///< nothing happened within the time allowed
    kNoService = 12,    ///< nobody listens on the service's socket
    kPaused = 13,       ///< the service is paused
    kRefused = 14,      ///< the service refused the call
    kDisconnected = 15, ///< the connection failed before the request was taken
    kBusy = 16,         ///< the service's waiting queue is full
    kBadArgument = 17,  ///< the service name or the command is missing or too long
    kNoReply = 18,      ///< the request was taken, and the connection ended without a reply
    kSaysFailure = 19,  ///< there is a reply, and it says failure
    kNotWell = 20,      ///< doctor has found a problem
};

struct limits {
    double least = 0;
    double most = 4294967295; // of an unsigned, which a double holds exactly
};

/// An option of a subcommand, or a word of its command line.
struct option {
    const char* name; ///< "--name", "-n,--name", or for a word "NAME".
    /// Where the value goes; its initial content is the default. A bool is a flag. A word is required, unless it is a
    /// std::optional; an option that is one takes no empty text. A std::vector takes all that are given.
    std::variant<bool*, unsigned*, double*, std::string*, std::optional<std::string>*, std::vector<std::string>*> value;
    const char* help;
    const char* value_name = ""; ///< The help's name for an option's value.
    limits range = {};           ///< Of a number.
};

/// What a subcommand declares. The parser's header takes longer to compile than all the rest of ksctl: only ksctl.cpp
/// includes it.
struct declaration {
    std::vector<option> options;
    std::function<int()> run; ///< Runs it after parsing. Returns the exit status.
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
extern const command cmd_conform;
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

/// Writes all of `text` to standard output at once. @return False if that failed, after reporting it.
[[nodiscard]] bool print(std::string_view text);

} // namespace ksctl
