// ksctl: talks to local services from the command line, for people and scripts.
#include "ksctl.h"

#include "completion.h"
#include "near_name.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <variant>
#include <vector>

namespace ksctl {

namespace {

constexpr std::array kCommands = {&cmd_call,   &cmd_commands, &cmd_conform, &cmd_describe, &cmd_doctor,
                                  &cmd_listen, &cmd_list,     &cmd_path,    &cmd_ping,     &cmd_wait};

constexpr const char* kFooter =
    "A SERVICE is a name, main for VexHubServer-vexprod, mail for VexHubServer_send_mail-vexprod, or \"@/path\"\n"
    "for a service that is published at a path of its own.\n"
    "\n"
    "Exit status:\n"
    "   0  success; for a call: the reply has been printed\n"
    "   1  a file or standard output cannot be read or written\n"
    "   2  wrong usage\n"
    "  11  time-out\n"
    "  12  no such service\n"
    "  13  the service is paused\n"
    "  14  the service refused the call\n"
    "  15  the connection failed before the request was taken\n"
    "  16  the service is busy\n"
    "  17  bad argument: service name or command missing, or over 64 or 256 characters\n"
    "  18  the request was taken, and the connection ended without a reply\n"
    "  19  call --check: the reply says failure\n"
    "  20  doctor: something is not well\n"
    "\n"
    "ksctl COMMAND --help tells about one command.";

// A word of the command line, as it can be seen in a message.
std::string shown(const std::string& word) {
    return word.empty() ? "''" : word;
}

// What the shells' completion (completions/) asks; no subcommand for people.
constexpr std::string_view kComplete = "complete";

// Prints what may stand in place of the last of `words`, which follow "ksctl" on the command line.
int complete(const std::vector<std::string>& words, const CLI::App& app) {
    std::vector<subcommand_words> subcommands;
    for (const CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; })) {
        subcommand_words known = {each->get_name(), each->get_description(), {}, {}};
        for (const CLI::Option* option : each->get_options()) {
            if (option->get_positional()) {
                known.arguments.push_back(option->get_name(true));
            } else {
                known.options.push_back({"--" + option->get_lnames().front(), option->get_description(),
                                         option->get_items_expected_max() > 0});
            }
        }
        subcommands.push_back(std::move(known));
    }
    std::string lines;
    for (const candidate& each : candidates(words, subcommands)) {
        lines += each.text + '\t' + each.meaning + '\n';
    }
    return print(lines) ? kSuccess : kFailure;
}

// The parser's own check takes no text for 0, and "nan" for a number in every range.
template <class Number>
auto in_range(const limits& range) {
    return [range](const std::string& text) {
        Number value{};
        const bool number = !text.empty() && CLI::detail::lexical_cast(text, value);
        if (number && static_cast<double>(value) >= range.least && static_cast<double>(value) <= range.most) {
            return std::string();
        }
        std::array<char, 64> allowed{};
        (void)snprintf(allowed.data(), allowed.size(), "%.10g to %.10g", range.least, range.most);
        return "Value " + shown(text) + " not in range " + allowed.data();
    };
}

// Tells the parser of an option.
void add(CLI::App& app, const option& declared) {
    const auto add_to = [&](auto* value) {
        using kind = std::remove_pointer_t<decltype(value)>;
        if constexpr (std::is_same_v<kind, bool>) {
            app.add_flag(declared.name, *value, declared.help);
        } else {
            CLI::Option* added = app.add_option(declared.name, *value, declared.help);
            if (*declared.value_name != '\0') {
                added->type_name(declared.value_name);
            }
            if constexpr (!std::is_same_v<kind, std::optional<std::string>>) {
                added->required(added->get_positional())->capture_default_str();
            } else if (!added->get_positional()) {
                added->check([](const std::string& text) { return text.empty() ? "Value '' is empty" : ""; });
            }
            if constexpr (std::is_arithmetic_v<kind>) {
                added->check(in_range<kind>(declared.range));
            }
        }
    };
    std::visit(add_to, declared.value);
}

bool is_subcommand(std::string_view word) {
    return std::any_of(kCommands.begin(), kCommands.end(), [word](const command* each) { return word == each->name; });
}

int unknown_subcommand(const std::string& given) {
    std::vector<std::string> names;
    names.reserve(kCommands.size());
    for (const command* each : kCommands) {
        names.emplace_back(each->name);
    }
    const std::string question = did_you_mean(near_names(given, names));
    return fail(kUsage, "no subcommand %s%s%s (see ksctl --help)", shown(given).c_str(), question.empty() ? "" : "; ",
                question.c_str());
}

// The parser misses what is required before it looks at words that it does not know, and names those last word first.
// It counts a "--" among them.
std::string usage_error(const CLI::App& app, const CLI::Error& error) {
    std::vector<std::string> unknown = app.remaining(true);
    std::erase(unknown, "--");
    const int kind = error.get_exit_code();
    if (unknown.empty() || (kind != static_cast<int>(CLI::ExitCodes::RequiredError) &&
                            kind != static_cast<int>(CLI::ExitCodes::ExtrasError))) {
        return error.what();
    }
    std::string text = "not expected:";
    for (const std::string& word : unknown) {
        text += ' ' + shown(word);
    }
    return text;
}

int parse_and_run(int argc, char** argv) {
    CLI::App app("Calls, watches and stands in for local services.", "ksctl");
    app.set_version_flag("--version", "ksctl " KSCTL_VERSION);
    app.footer(kFooter);
    // Exactly one: the words after a subcommand are its own, also when one reads like another subcommand's name.
    app.require_subcommand(1, 1);
    app.failure_message([](const CLI::App* main, const CLI::Error& error) {
        const std::vector<CLI::App*> begun = main->get_subcommands(); // what the words before the mistake chose
        const std::string chosen = begun.empty() ? "" : " " + begun.front()->get_name();
        return "ksctl: " + usage_error(*main, error) + " (see ksctl" + chosen + " --help)\n";
    });
    std::function<int()> action;
    for (const command* each : kCommands) {
        CLI::App* subcommand = app.add_subcommand(each->name, each->summary);
        const std::string details = each->details;
        subcommand->footer(details + (details.empty() ? "" : "\n\n") + "Example:\n  " + each->example);
        declaration declared = each->declare();
        for (const option& option : declared.options) {
            add(*subcommand, option);
        }
        subcommand->callback([&action, body = std::move(declared.run)] { action = body; });
    }
    if (argc > 1 && argv[1] == kComplete) {
        return complete({argv + 2, argv + argc}, app);
    }
    if (argc > 1 && *argv[1] != '-' && !is_subcommand(argv[1])) {
        return unknown_subcommand(argv[1]);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const bool asked = app.exit(error) == 0; // --help and --version come this way, too
        if (!std::cout.flush()) {
            return fail(kFailure, "cannot write to standard output: %s", strerror(errno));
        }
        return asked ? kSuccess : kUsage;
    }
    return action();
}

// Takes the numbers of those that are closed, so that nothing that is opened later gets what is meant for them. Reading
// and writing go on to fail.
void occupy_closed_standard_streams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            (void)open("/", O_PATH | O_CLOEXEC); // the lowest free number is this one
        }
    }
}

} // namespace

int run(int argc, char** argv) {
    occupy_closed_standard_streams();
    // A reader that leaves early, or a file that grows too large, is an error to report, not a signal to die of.
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGXFSZ, SIG_IGN);
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception& error) {
        return fail(kFailure, "%s", error.what());
    }
}

int fail(int status, const char* format, ...) {
    std::array<char, 1024> message{};
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);
    (void)fprintf(stderr, "ksctl: %s\n", message.data());
    return status;
}

bool print(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<size_t>(count));
        } else if (errno != EINTR) {
            (void)fail(kFailure, "cannot write to standard output: %s", strerror(errno));
            return false;
        }
    }
    return true;
}

} // namespace ksctl
