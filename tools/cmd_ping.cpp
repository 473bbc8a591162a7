// ksctl ping: how long calls take.
#include "commands.h"
#include "exchange.h"
#include "ksctl.h"
#include "service_socket.h"
#include "stop_signals.h"
#include "unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ksctl {

namespace {

struct ping_options {
    std::string service;
    std::string command = "test";
    unsigned count = 4;
    unsigned timeout_s = kShortestTimeoutS;
};

template <class... Values>
std::string format(const char* pattern, Values... values) {
    std::array<char, 512> text{};
    (void)snprintf(text.data(), text.size(), pattern, values...);
    return text.data();
}

// The value below which `percent` of the sorted values lie: one of them, by the nearest rank.
double percentile(const std::vector<double>& sorted, size_t percent) {
    const size_t rank = (sorted.size() * percent + 99) / 100;
    return sorted[std::max<size_t>(rank, 1) - 1];
}

std::string statistics(std::vector<double> times_ms, unsigned calls) {
    std::string line = format("%u calls, %zu answered", calls, times_ms.size());
    if (!times_ms.empty()) {
        std::sort(times_ms.begin(), times_ms.end());
        const double sum = std::accumulate(times_ms.begin(), times_ms.end(), 0.0);
        line += format(", min/avg/max %.3f/%.3f/%.3f ms, p50/p90/p99 %.3f/%.3f/%.3f ms", times_ms.front(),
                       sum / static_cast<double>(times_ms.size()), times_ms.back(), percentile(times_ms, 50),
                       percentile(times_ms, 90), percentile(times_ms, 99));
    }
    return line + '\n';
}

// What the calling thread has found out so far.
struct results {
    std::mutex lock;
    std::vector<double> times_ms;
    unsigned calls = 0;
    int status = kSuccess; // of the last call that failed
    bool printed = true;   // standard output has taken every line
};

void call_and_note(const ping_options& options, results* found) {
    for (unsigned i = 1; i <= options.count; ++i) {
        {
            const std::lock_guard guard(found->lock);
            found->calls = i;
        }
        const auto begin = std::chrono::steady_clock::now();
        const outcome ended = exchange(options.service, options.command, make_request(""), options.timeout_s, -1);
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        const std::lock_guard guard(found->lock);
        if (ended.status != kSuccess) {
            found->status = fail(ended.status, "%u: %s", i, ended.error.c_str());
            continue;
        }
        found->times_ms.push_back(took.count());
        if (!print(format("%u: %zu bytes in %.3f ms\n", i, ks_io_size(ended.reply.get()), took.count()))) {
            found->printed = false;
            return;
        }
    }
}

// The calls are made by a thread of their own, so that a signal ends a ping that waits for its service, too.
int ping(const ping_options& options) {
    if (!check_service_name(options.service) || !check_command(options.service, options.command)) {
        return kBadArgument;
    }
    const stop_signals signals;
    const unique_fd done(eventfd(0, EFD_CLOEXEC));
    if (!signals.ok() || !done.ok()) {
        return fail(kFailure, "cannot wait for signals: %s", strerror(errno));
    }
    results found;
    std::thread caller([&] {
        call_and_note(options, &found);
        (void)eventfd_write(done.get(), 1); // cannot fail: the counter is far from full
    });
    const bool interrupted = signals.came_before(done.get());
    if (!interrupted) {
        caller.join();
    }
    std::unique_lock guard(found.lock); // after a signal for good: nothing may follow the statistics
    const bool printed = found.printed && print(statistics(found.times_ms, found.calls));
    const int status = printed ? found.status : static_cast<int>(kFailure);
    if (interrupted) {
        _exit(status); // the caller may wait for its service as long as it likes
    }
    return status;
}

declaration declare() {
    auto options = std::make_shared<ping_options>();
    return {{{"SERVICE", &options->service, "The service's name"},
             {"-c,--count", &options->count, "Number of calls, one after the other", "N", {.least = 1}},
             {"--command", &options->command, "The command to call, with an empty request", "COMMAND"},
             {"--timeout", &options->timeout_s, "Seconds to wait for each reply, 0 = without limit; 1 to 4 count as 5",
              "S"}},
            [options] { return ping(*options); }};
}

} // namespace

const command cmd_ping = {
    "ping", "Measure how long calls take",
    "Prints one line for each call that was answered, and at the end, or on SIGINT and SIGTERM, a line of\n"
    "statistics of them. Failed calls are told of on standard error. The exit status is that of the last call\n"
    "that failed, or 0.",
    "ksctl ping main -c 100", declare};

} // namespace ksctl
