// ksctl call: one request, its reply to standard output.
#include "commands.h"
#include "exchange.h"
#include "explain.h"
#include "ksctl.h"
#include "pretty_json.h"
#include "service_socket.h"
#include "unique_fd.h"

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
    std::optional<std::string> output_path;
    unsigned timeout_s = 30;
    bool pretty = false;
    bool check = false;
    bool verbose = false;
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
    const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.ok() || !read_to_end(file.get(), &text)) {
        (void)fail(kFailure, "cannot read %s: %s", *path == '\0' ? "@" : path, strerror(errno));
        return std::nullopt;
    }
    return text;
}

// Tells a person why the call failed, as far as the description knows. @param reply  Nothing = none came.
void hint_at_reason(const call_options& options, const std::string& request, const std::optional<std::string>& reply) {
    if (!options.verbose && isatty(STDERR_FILENO) == 0) {
        return;
    }
    const documented_command* command = find_command(options.service, options.command);
    if (command != nullptr && (!reply || says_failure(command, *reply))) {
        if (const std::string reason = explain(*command, request, reply); !reason.empty()) {
            (void)fail(kSuccess, "%s: %s", options.command.c_str(), reason.c_str());
        }
    }
}

int call(const call_options& options) {
    if (!check_service_name(options.service) || !check_command(options.service, options.command)) {
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
    if (options.output_path) {
        output = unique_fd(open(options.output_path->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!output.ok()) {
            return fail(kFailure, "cannot write %s: %s", options.output_path->c_str(), strerror(errno));
        }
    }
    const outcome ended =
        exchange(options.service, options.command, std::move(request), options.timeout_s, output.get());
    if (ended.status != kSuccess) {
        (void)fail(ended.status, "%s", ended.error.c_str());
        if (ended.status == kNoReply) {
            hint_at_reason(options, *text, std::nullopt);
        }
        return ended.status;
    }
    const std::optional<std::string> reply = read_all(ended.reply.get());
    if (!reply) {
        return fail(kFailure, "cannot read the reply: %s", strerror(errno));
    }
    if (!print(options.pretty ? indent_json(*reply) : *reply)) {
        return kFailure;
    }
    hint_at_reason(options, *text, reply);
    const bool failed = options.check && says_failure(find_command(options.service, options.command), *reply);
    return failed ? kSaysFailure : kSuccess;
}

declaration declare() {
    auto options = std::make_shared<call_options>();
    return {
        {{"SERVICE", &options->service, "The service's name"},
         {"COMMAND", &options->command, "The command's name"},
         {"REQUEST", &options->request,
          "The request's text, @FILE for a file's content, or - for standard input; none = empty"},
         {"--timeout", &options->timeout_s,
          "Seconds to wait for the reply, 0 = without limit; 1 to 4 count as 5, as in every call through the library",
          "S"},
         {"--output", &options->output_path,
          "Hand over this file, created or truncated, as the command's own standard output; not for its tools'",
          "FILE"},
         {"--pretty", &options->pretty, "Indent the reply if it is JSON; otherwise it is printed as it came"},
         {"--check", &options->check,
          "End with status 19 when the reply says failure: it has an \"error_msg\", or an \"error_code\" or a \"result\" "
          "other than 0, and is not the example's that ksctl describe gives"},
         {"-v,--verbose", &options->verbose,
          "Say on standard error why a request was refused or failed, as on a terminal"}},
        [options] { return call(*options); }};
}

} // namespace

const command cmd_call = {
    "call", "Call a service and print its reply",
    "The reply is printed byte for byte. A request text that begins with \"-\" goes after \"--\".\n"
    "ksctl describe COMMAND tells which keys a request has.",
    "ksctl call main get_hwsn --pretty", declare};

} // namespace ksctl
