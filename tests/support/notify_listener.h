// The package's notification service, as a test plays it: a real service under the real name that keeps what it is
// sent.
#ifndef VEXPROD_TESTS_NOTIFY_LISTENER_H
#define VEXPROD_TESTS_NOTIFY_LISTENER_H

#include "kservice.h"
#include "wait.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

/// One at a time in a process.
class notify_listener {
public:
    using request = std::pair<std::string, std::string>; ///< Command and payload.

    enum class manner { answers, is_silent };

    explicit notify_listener(manner how = manner::answers) {
        const std::lock_guard lock(mutex_);
        requests_.clear();
        silent_ = how == manner::is_silent;
        (void)::mkdir("/var/run/ks", 0755);
        handle_ = ks_create("VexHubServer_notify-vexprod", KS_STANDALONE | KS_PTHREAD_MODE, 2, serve);
        ks_start(handle_);
    }
    notify_listener(const notify_listener&) = delete;
    notify_listener& operator=(const notify_listener&) = delete;
    ~notify_listener() {
        {
            const std::lock_guard lock(mutex_);
            silent_ = false;
            changed_.notify_all();
        }
        // ks_stop() closes descriptor 0, which in a test may be anything: keep it.
        const int kept = ::dup(0);
        ks_free(handle_);
        if (kept >= 0) {
            (void)::dup2(kept, 0);
            ::close(kept);
        }
    }

    /// Waits until `count` requests have come. @return All so far.
    [[nodiscard]] static std::vector<request> wait_for(std::size_t count,
                                                       std::chrono::milliseconds patience = kPatience) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, patience, [&] { return requests_.size() >= count; });
        return requests_;
    }

private:
    static int serve(const char* command, ks_io* io, int fd) {
        std::string text(ks_io_size(io), '\0');
        const bool whole = ::pread(io->memfd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
        {
            std::unique_lock lock(mutex_);
            requests_.emplace_back(command, !whole ? "unreadable" : fd >= 0 ? "with a descriptor: " + text : text);
            changed_.notify_all();
            changed_.wait(lock, [] { return !silent_; });
        }
        if (ks_io_alive(io) != 0) {
            ks_io_realloc(io, 0);
            ks_reply(io);
        }
        if (fd >= 0) {
            ::close(fd);
        }
        ks_io_free(io);
        return 0;
    }

    static inline std::mutex mutex_;
    static inline std::condition_variable changed_;
    static inline std::vector<request> requests_;
    static inline bool silent_ = false;
    ks_handle* handle_ = nullptr;
};

#endif
