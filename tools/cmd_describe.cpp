// ksctl describe: all that is known about one command.
#include "commands.h"
#include "ksctl.h"
#include "near_name.h"
#include "service_socket.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace ksctl {

namespace {

constexpr std::size_t kColumns = 80;

struct describe_options {
    std::string command;
    std::optional<std::string> service;
};

// `text` in lines of at most kColumns where its blanks allow, behind `indent` blanks, and two more from the second on.
std::string wrapped(const std::string& text, std::size_t indent) {
    std::istringstream words(text);
    std::string lines;
    std::string line(indent, ' ');
    bool begun = false;
    for (std::string word; words >> word;) {
        if (begun && line.size() + 1 + word.size() > kColumns) {
            lines += line + '\n';
            line.assign(indent + 2, ' ');
            begun = false;
        }
        line += (begun ? " " : "") + word;
        begun = true;
    }
    return lines + line + '\n';
}

// `text` as one word of a shell.
std::string shell_word(const std::string& text) {
    std::string word = "'";
    for (const char c : text) {
        word += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return word + "'";
}

// The code of a line in a row, and its text behind it.
std::string sentence(const documented_line& line) {
    std::string text = line.word;
    for (const std::string& code : line.code) {
        text += (text.empty() ? "" : " ") + code;
    }
    return text + line.text;
}

std::string part(const char* heading, const std::string& lines) {
    return lines.empty() ? "" : std::string("\n") + heading + '\n' + lines;
}

std::string keys_of(const documented_command& command) {
    std::string lines;
    for (const documented_line& line : command.lines_of("Key")) {
        lines += wrapped(line.code.front() + line.text, 2);
    }
    return lines.empty() ? "  none; the request is not read\n" : lines;
}

// The host's side, and the notes that only people read.
std::string host_side_of(const documented_command& command) {
    std::string lines;
    for (const documented_line& line : command.lines) {
        const bool elsewhere = line.word == "Key" || line.word == "Replies" || line.word.starts_with("No reply") ||
                               line.word.starts_with("Given") || line.text.starts_with("No keys");
        lines += elsewhere ? "" : wrapped(sentence(line), 2);
    }
    return lines;
}

std::string example_of(const documented_command& command) {
    const std::string request = command.keys().empty() ? "" : " " + shell_word(command.request);
    std::string reply = "  " + command.reply;
    for (std::size_t at = reply.find('\n'); at != std::string::npos; at = reply.find('\n', at + 3)) {
        reply.insert(at + 1, 2, ' ');
    }
    return "  ksctl call " + command.section + ' ' + command.name + request + '\n' + reply + '\n';
}

// "REPLY to `REQUEST`: MEANING", the meaning on lines of its own.
std::string other_replies_of(const documented_command& command) {
    std::string lines;
    for (const documented_line& line : command.lines) {
        if (line.word != "Replies" && !line.word.starts_with("No reply")) {
            continue;
        }
        std::string reply = line.word == "Replies" ? line.code.front() : "no reply";
        if (line.word == "No reply to") {
            reply += " to " + line.code.front();
        }
        const std::size_t colon = line.colon();
        reply += line.text.substr(0, colon);
        lines += "  " + reply + '\n' + wrapped(colon == std::string::npos ? "" : line.text.substr(colon + 2), 4);
    }
    return lines;
}

std::string description(const documented_command& command) {
    return command.name + " (" + command.section + ": " + command.service + ")\n" + wrapped(command.summary, 2) +
           part("Keys of the request", keys_of(command)) + part("On the host", host_side_of(command)) +
           part("Example", example_of(command)) + part("Other replies, and what they mean", other_replies_of(command));
}

int describe(const describe_options& options) {
    const std::string service = full_service_name(options.service.value_or(""));
    if (!check_has_commands(service, "describe")) {
        return kUsage;
    }
    std::string text;
    std::vector<std::string> names;
    for (const documented_command& each : commands()) {
        if (!service.empty() && each.service != service) {
            continue;
        }
        if (std::find(names.begin(), names.end(), each.name) == names.end()) { // services may share a name
            names.push_back(each.name);
        }
        if (each.name == options.command) {
            text += (text.empty() ? "" : "\n") + description(each);
        }
    }
    if (text.empty() && !service.empty()) {
        return fail(kUsage, "%s", about_unknown_command(service, options.command).c_str());
    }
    if (text.empty()) {
        const std::string question = did_you_mean(near_names(options.command, names));
        return fail(kUsage, "no command %s is known; %s", options.command.c_str(),
                    question.empty() ? "ksctl commands lists them" : question.c_str());
    }
    return print(text) ? kSuccess : kFailure;
}

declaration declare() {
    auto options = std::make_shared<describe_options>();
    return {{{"COMMAND", &options->command, "The command's name"},
             {"--service", &options->service, "Only this service's command: main or mail", "NAME"}},
            [options] { return describe(*options); }};
}

} // namespace

const command cmd_describe = {
    "describe", "Tell all about one command",
    "Prints what the command is for, its keys with their types and defaults, what it runs on the host, an\n"
    "example that can be pasted, and every other reply and what it means, as vexprod-commands(7) has them.",
    "ksctl describe get_sess_id", declare};

} // namespace ksctl
