// ksctl ping: how long calls take.
#include "exchange.h"
#include "ksctl.h"
#include "service_socket.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <numeric>
#include <string>
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

int ping(const ping_options& options) {
    if (!check_service_name(options.service)) {
        return kBadArgument;
    }
    std::vector<double> times_ms;
    int status = kSuccess;
    for (unsigned i = 1; i <= options.count; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        const outcome ended = exchange(options.service, options.command, make_request(""), options.timeout_s, -1);
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        std::string line = format("%u: ", i);
        if (ended.status == kSuccess) {
            times_ms.push_back(took.count());
            line += format("%zu bytes in %.3f ms\n", ks_io_size(ended.reply.get()), took.count());
        } else {
            status = ended.status;
            line += ended.error + '\n';
        }
        if (!print(line)) {
            return kFailure;
        }
    }
    return print(statistics(std::move(times_ms), options.count)) ? status : static_cast<int>(kFailure);
}

std::function<int()> declare(CLI::App& app) {
    auto options = std::make_shared<ping_options>();
    app.add_option("SERVICE", options->service, "The service's name")->required();
    app.add_option("-c,--count", options->count, "Number of calls, one after the other")
        ->type_name("N")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--command", options->command, "The command to call, with an empty request")
        ->type_name("COMMAND")
        ->capture_default_str();
    app.add_option("--timeout", options->timeout_s, "Seconds to wait for each reply; below 5 counts as 5")
        ->type_name("S")
        ->capture_default_str();
    return [options] { return ping(*options); };
}

} // namespace

const command cmd_ping = {
    "ping", "Measure how long calls take",
    "Prints one line for each call, and a line of statistics of those that were answered at the end.\n"
    "The exit status is that of the last call that failed, or 0.",
    "ksctl ping VexHubServer-vexprod -c 100", declare};

} // namespace ksctl
