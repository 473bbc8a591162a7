// ksctl listen: stands in for a service, and shows what it is sent.
//
// One worker, so that requests are printed one after the other in the order in which they were served, and --count is
// exact. The worker only prints, answers and counts; the main thread waits for it, or for a signal, and ends the
// service.
#include "exchange.h"
#include "ksctl.h"
#include "service_socket.h"
#include "stop_signals.h"
#include "unique_fd.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace ksctl {

namespace {

struct listen_options {
    std::string service;
    std::string reply = "{}";
    unsigned count = 0;
};

// The library's callback has no argument of ours, so what it works on stands here; one process serves one name.
struct receiver {
    std::string reply;
    unsigned left = 0; // requests still to be served; 0 = no limit
    int done_fd = -1;  // borrowed; written to when nothing is to be served any more
    bool ended = false;
    std::atomic<int> status = kSuccess;
};
receiver state;

struct free_service {
    void operator()(ks_handle* service) const noexcept { ks_free(service); }
};
using unique_service = std::unique_ptr<ks_handle, free_service>;

void end(int status) {
    state.ended = true;
    state.status = status;
    const uint64_t one = 1;
    (void)!write(state.done_fd, &one, sizeof(one)); // cannot fail: the counter is far from full
}

// `text` as one line: without the newlines that it ends with, and with control characters written as escapes.
std::string one_line(std::string_view text) {
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    std::string line;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7F) {
            std::array<char, 8> escape{};
            (void)snprintf(escape.data(), escape.size(), "\\x%02X", static_cast<unsigned>(byte));
            line += escape.data();
        } else {
            line += c;
        }
    }
    return line;
}

int serve(const char* command, ks_io* request, int fd) {
    const unique_io io(request);
    const unique_fd extra(fd);
    if (state.ended) {
        return 0; // the last one has been served: hang up
    }
    const std::optional<std::string> sent = read_all(io.get());
    if (!sent) {
        (void)fail(kFailure, "cannot read the request: %s", strerror(errno)); // and hang up
        return 0;
    }
    const std::string text = one_line(*sent);
    const bool printed = print(one_line(command) + (text.empty() ? "" : " ") + text + '\n');
    ks_io_realloc(io.get(), 0);
    if (write_all(io.get(), state.reply)) {
        ks_reply(io.get());
    } else {
        (void)fail(kFailure, "cannot store the reply: %s", strerror(errno)); // and hang up
    }
    if (!printed) {
        end(kFailure);
    } else if (state.left > 0 && --state.left == 0) {
        end(kSuccess);
    }
    return 0;
}

// The library aborts when it cannot publish a service, so what a person can get wrong is looked at first.
int check_publishable(const std::string& service, const std::string& path) {
    if (path.front() != '/') {
        return fail(kBadArgument, "bad argument: a path must be absolute: %s", service.c_str());
    }
    std::error_code error;
    const auto there = std::filesystem::symlink_status(path, error);
    if (std::filesystem::exists(there) && !std::filesystem::is_socket(there)) {
        return fail(kFailure, "not a socket: %s", path.c_str());
    }
    if (probe(path) != presence::down) {
        return fail(kFailure, "somebody else serves %s (%s)", service.c_str(), path.c_str());
    }
    std::filesystem::path directory = std::filesystem::path(path).parent_path();
    if (!std::filesystem::exists(directory, error)) {
        directory = directory.parent_path(); // the library makes one level
    }
    if (access(directory.c_str(), W_OK | X_OK) != 0) {
        return fail(kFailure, "cannot publish %s: %s: %s", path.c_str(), directory.c_str(), strerror(errno));
    }
    return kSuccess;
}

int listen_as(const listen_options& options) {
    if (!check_service_name(options.service)) {
        return kBadArgument;
    }
    if (const int status = check_publishable(options.service, service_path(options.service)); status != kSuccess) {
        return status;
    }
    const stop_signals signals;
    const unique_fd done(eventfd(0, EFD_CLOEXEC));
    if (!signals.ok() || !done.ok()) {
        return fail(kFailure, "cannot wait for signals: %s", strerror(errno));
    }
    state.reply = options.reply;
    state.left = options.count;
    state.done_fd = done.get();
    const unique_service service(
        ks_create(full_service_name(options.service).c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, serve));
    ks_start(service.get());
    (void)signals.came_before(done.get());
    ks_stop(service.get()); // waits for the worker
    return state.status;
}

declaration declare() {
    auto options = std::make_shared<listen_options>();
    return {{{"SERVICE", &options->service, "The name to serve, which nobody else serves"},
             {"--count", &options->count, "End after this many requests; 0 = never", "N"},
             {"--reply", &options->reply, "The text to answer with", "TEXT"}},
            [options] { return listen_as(*options); }};
}

} // namespace

const command cmd_listen = {
    "listen", "Stand in for a service and print its requests",
    "Prints each request as one line \"COMMAND TEXT\" as it comes, and answers it. Control characters are\n"
    "printed as escapes, newlines at the text's end are left out. Ends with status 0 on SIGINT or SIGTERM.",
    "ksctl listen VexHubServer_notify-vexprod --count 1", declare};

} // namespace ksctl
