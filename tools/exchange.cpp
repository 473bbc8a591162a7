#include "exchange.h"

#include "ksctl.h"
#include "kservice.h"
#include "service_socket.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>
#include <unistd.h>

namespace ksctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct free_epoll {
    void operator()(ks_epoll* epoll) const noexcept { ks_epoll_free(epoll); }
};
using unique_epoll = std::unique_ptr<ks_epoll, free_epoll>;

// The result codes of the library as statuses and lines. `taken` = the service had the request already.
outcome failure(unsigned code, bool taken, const std::string& service, const std::string& where, unsigned timeout_s) {
    switch (code) {
    case KS_TIMEOUT:
        return {kTimeout,
                "time-out: " + service +
                    (taken ? " has the request, but gave no reply within " : " took no request within ") +
                    std::to_string(timeout_s) + " s",
                nullptr};
    case KS_PAUSED:
        return {kPaused, "service is paused: " + service, nullptr};
    case KS_REFUSED:
        return {kRefused, "service refused the call: " + service, nullptr};
    case KS_BUSY:
        return {kBusy, "service is busy: " + service, nullptr};
    default:
        break;
    }
    if (taken) {
        return {kNoReply, "no reply: " + service + " took the request and ended the connection", nullptr};
    }
    return {kDisconnected, "connection failed before the request was taken: " + service + " (" + where + ")", nullptr};
}

// At most what poll(2) can count.
unsigned milliseconds_until(steady_clock::time_point deadline) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now()).count();
    return static_cast<unsigned>(std::clamp<int64_t>(left, 0, std::numeric_limits<int>::max()));
}

} // namespace

bool write_all(ks_io* io, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ks_io_write(io, text.data(), text.size());
        if (count <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

unique_io make_request(std::string_view payload) {
    unique_io request(ks_io_create());
    return write_all(request.get(), payload) ? std::move(request) : nullptr;
}

outcome exchange(const std::string& given_service, const std::string& command, unique_io request, unsigned timeout_s,
                 int passfd) {
    const std::string service = full_service_name(given_service);
    const unique_epoll epoll(ks_epoll_create());
    const unsigned allowed_s = std::max(timeout_s, kShortestTimeoutS);
    const auto deadline = timeout_s == kNoTimeout ? steady_clock::time_point::max()
                                                  : steady_clock::now() + std::chrono::seconds(allowed_s);
    unsigned code = ks_epoll_call(epoll.get(), service.c_str(), command.c_str(), request.get(), passfd);
    // That is given up after 5 seconds while the backlog is full; with fewer left, only a backlog with room is tried.
    // The probe fills a place until the service accepts it: where that was the only one, the call may end 5 seconds
    // late.
    for (auto now = steady_clock::now(); code == KS_TIMEOUT && now < deadline; now = steady_clock::now()) {
        if (deadline - now < std::chrono::seconds(kShortestTimeoutS) &&
            probe(service_path(service)) == presence::full) {
            std::this_thread::sleep_for(std::min<steady_clock::duration>(deadline - now, milliseconds(20)));
        } else {
            code = ks_epoll_call(epoll.get(), service.c_str(), command.c_str(), request.get(), passfd);
        }
    }
    if (code == KS_NO_SERVICE) {
        const int error = errno;
        return {kNoService,
                "no such service: " + service + " (" + service_path(service) + "): " + why_absent(given_service, error),
                nullptr};
    }
    if (code != KS_OK) {
        return failure(code, false, service, "", allowed_s);
    }
    bool taken = false;
    while (ks_epoll_perform(epoll.get(), milliseconds_until(deadline), &code) == nullptr) {
        if (code != KS_TIMEOUT) {
            taken = true; // no request ended and no time-out: this pass sent ours
        } else if (timeout_s != kNoTimeout) {
            break;
        }
    }
    if (code != KS_OK) {
        return failure(code, taken, service, service_path(service), allowed_s);
    }
    return {kSuccess, "", std::move(request)};
}

std::optional<std::string> read_all(ks_io* io) {
    // Not from the mapping: the other side holds the file, too, and could shorten it meanwhile.
    std::string text(ks_io_size(io), '\0');
    size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t count =
            pread(ks_io_fileno(io), text.data() + filled, text.size() - filled, static_cast<off_t>(filled));
        if (count < 0) {
            return std::nullopt;
        }
        if (count == 0) { // shortened
            break;
        }
        filled += static_cast<size_t>(count);
    }
    text.resize(filled);
    return text;
}

} // namespace ksctl
