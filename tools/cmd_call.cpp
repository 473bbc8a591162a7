// ksctl call: one request, its reply to standard output.
#include "command_list.h"
#include "exchange.h"
#include "ksctl.h"
#include "pretty_json.h"
#include "service_socket.h"
#include "unique_fd.h"

#include <CLI/CLI.hpp>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>

namespace ksctl {

namespace {

struct call_options {
    std::string service;
    std::string command;
    std::optional<std::string> request;
    std::string output_path;
    unsigned timeout_s = 30;
    bool pretty = false;
};

// Appends what `fd` has to give. False and errno when it cannot be read.
bool read_to_end(int fd, std::string* text) {
    std::array<char, 65536> chunk{};
    for (;;) {
        const ssize_t count = read(fd, chunk.data(), chunk.size());
        if (count == 0) {
            return true;
        }
        if (count > 0) {
            text->append(chunk.data(), static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return false;
        }
    }
}

// The bytes that the request argument stands for. Nothing = they cannot be read, which has been reported.
std::optional<std::string> request_text(const std::optional<std::string>& argument) {
    if (!argument) {
        return "";
    }
    if (*argument != "-" && argument->rfind('@', 0) != 0) {
        return argument;
    }
    std::string text;
    if (*argument == "-") {
        if (read_to_end(STDIN_FILENO, &text)) {
            return text;
        }
        (void)fail(kFailure, "cannot read standard input: %s", strerror(errno));
        return std::nullopt;
    }
    const char* path = argument->c_str() + 1;
    const unique_fd file = above_standard_streams(unique_fd(open(path, O_RDONLY | O_CLOEXEC)));
    if (!file.ok() || !read_to_end(file.get(), &text)) {
        (void)fail(kFailure, "cannot read %s: %s", path, strerror(errno));
        return std::nullopt;
    }
    return text;
}

// Tells of a command that the service's list does not have but nearly has. The list may be older than the service, so
// what was asked is sent all the same.
void hint_at_near_command(const call_options& options) {
    if (const command_summary* near = near_command(options.service, options.command)) {
        (void)fail(kSuccess, "%s is not known to have a command %s; did you mean %s?", near->service,
                   options.command.c_str(), near->name);
    }
}

int call(const call_options& options) {
    if (!check_service_name(options.service)) {
        return kBadArgument;
    }
    const std::optional<std::string> text = request_text(options.request);
    if (!text) {
        return kFailure;
    }
    unique_io request = make_request(*text);
    if (!request) {
        return fail(kFailure, "cannot store the request: %s", strerror(errno));
    }
    unique_fd output;
    if (!options.output_path.empty()) {
        output = above_standard_streams(
            unique_fd(open(options.output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)));
        if (!output.ok()) {
            return fail(kFailure, "cannot write %s: %s", options.output_path.c_str(), strerror(errno));
        }
    }
    hint_at_near_command(options);
    const outcome ended =
        exchange(options.service, options.command, std::move(request), options.timeout_s, output.get());
    if (ended.status != kSuccess) {
        return fail(ended.status, "%s", ended.error.c_str());
    }
    const std::string reply = read_all(ended.reply.get());
    return print(options.pretty ? indent_json(reply) : reply) ? kSuccess : kFailure;
}

std::function<int()> declare(CLI::App& app) {
    auto options = std::make_shared<call_options>();
    app.add_option("SERVICE", options->service, "The service's name")->required();
    app.add_option("COMMAND", options->command, "The command's name")->required();
    app.add_option("REQUEST", options->request,
                   "The request's text, @FILE for a file's content, or - for standard input; none = empty");
    app.add_option("--timeout", options->timeout_s,
                   "Seconds to wait for the reply; below 5 counts as 5, as in every call through the library")
        ->type_name("S")
        ->capture_default_str();
    app.add_option(
           "--output", options->output_path,
           "Hand over this file, created or truncated, as the command's own standard output; not for its tools'")
        ->type_name("FILE");
    app.add_flag("--pretty", options->pretty, "Indent the reply if it is JSON; otherwise it is printed as it came");
    return [options] { return call(*options); };
}

} // namespace

const command cmd_call = {
    "call", "Call a service and print its reply",
    "The reply is printed byte for byte. A request text that begins with \"-\" goes after \"--\".",
    "ksctl call VexHubServer-vexprod get_hwsn '{}' --pretty", declare};

} // namespace ksctl
