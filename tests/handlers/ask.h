// Asks handlers, over a real service and real calls.
#ifndef VEXPROD_TESTS_HANDLERS_ASK_H
#define VEXPROD_TESTS_HANDLERS_ASK_H

#include "kservice.h"
#include "scoped.h"
#include "unique_fd.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using handler_function = int (*)(ks_io* io, int fd);

inline handler_function asked_handler = nullptr;

/// What the handler let escape; empty when it returned. The daemon's dispatch stops such errors as this does.
inline std::string escaped_error;

inline int run_asked_handler(const char* /*command*/, ks_io* io, int fd) {
    try {
        EXPECT_EQ(asked_handler(io, fd), 0);
    } catch (const std::exception& error) {
        static std::mutex mutex;
        const std::lock_guard lock(mutex);
        escaped_error = error.what();
    }
    ks_io_free(io);
    return 0;
}

/// The service that asks one handler.
class asking_service {
public:
    asking_service(handler_function handler, unsigned workers) {
        asked_handler = handler;
        escaped_error.clear();
        handle_ = ks_create(name_.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, workers, run_asked_handler);
        ks_start(handle_);
    }
    asking_service(const asking_service&) = delete;
    asking_service& operator=(const asking_service&) = delete;
    ~asking_service() {
        // An ended service closes descriptor 0, which is the test's.
        const unique_fd kept(::dup(STDIN_FILENO));
        ks_free(handle_);
        if (kept.ok()) {
            (void)::dup2(kept.get(), STDIN_FILENO);
        }
    }

    /// @return The reply's bytes; nothing when the connection ended without a reply.
    [[nodiscard]] std::optional<std::string> call(const std::string& request) const {
        void* reply = nullptr;
        size_t size = 0;
        const unsigned code = ks_ez_call(name_.c_str(), "asked", request.data(), request.size(), &reply, &size, 10, -1);
        const unique_heap<void> owner(reply);
        if (code != 0) {
            return std::nullopt;
        }
        return std::string(static_cast<const char*>(reply), size);
    }

private:
    std::string name_ = "@/tmp/ask-" + std::to_string(getpid()) + ".sock";
    ks_handle* handle_ = nullptr;
};

/// @return The reply's bytes; nothing when the connection ended without a reply.
inline std::optional<std::string> ask(handler_function handler, const std::string& request = "") {
    return asking_service(handler, 1).call(request);
}

/// Sends all requests at once, each to a worker of its own. @return The replies, in the requests' order.
inline std::vector<std::optional<std::string>> ask_at_once(handler_function handler,
                                                           const std::vector<std::string>& requests) {
    const asking_service service(handler, static_cast<unsigned>(requests.size()));
    std::vector<std::optional<std::string>> replies(requests.size());
    std::vector<std::thread> callers;
    for (std::size_t i = 0; i < requests.size(); ++i) {
        callers.emplace_back([&, i] { replies[i] = service.call(requests[i]); });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    return replies;
}

#endif
