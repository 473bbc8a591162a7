// What the system tests of events and of stopping share: processes that post and call, and a look at what is left.
#ifndef VEXPROD_TESTS_SYSTEM_HELPERS_H
#define VEXPROD_TESTS_SYSTEM_HELPERS_H

#include "daemon_process.h"
#include "host_records.h"

#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

inline constexpr int kNotifyQueue = 65521;
inline constexpr int kEventQueue = 65522;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

/// A number from the environment, or `otherwise`.
inline long setting(const char* name, long otherwise) {
    const char* text = getenv(name);
    return text != nullptr ? std::strtol(text, nullptr, 10) : otherwise;
}

/// A process of its own that runs `body`; killed at scope end, should it still run.
class side_process {
public:
    explicit side_process(const std::function<void()>& body) : pid_(fork()) {
        if (pid_ == 0) {
            body();
            _exit(0);
        }
    }
    side_process(const side_process&) = delete;
    side_process& operator=(const side_process&) = delete;
    side_process(side_process&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
    side_process& operator=(side_process&&) = delete;
    ~side_process() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    [[nodiscard]] pid_t pid() const { return pid_; }
    /// Waits for its end. @return The raw wait status.
    int join() {
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_;
};

/// How often `part` stands in `text`.
inline size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

/// The path of a service's socket.
inline std::string socket_path(const char* service) {
    ks_handle* handle = ks_create(service, KS_PTHREAD_MODE, 1, [](const char*, ks_io*, int) { return 0; });
    std::string path = handle->sockfile;
    ks_free(handle);
    return path;
}

#endif
