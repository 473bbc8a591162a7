// What the system tests of events, of stopping and of crashes share: processes that post and call, what holds the
// daemon up at a known place, and a look at what is left.
#ifndef VEXPROD_TESTS_SYSTEM_HELPERS_H
#define VEXPROD_TESTS_SYSTEM_HELPERS_H

#include "daemon_process.h"
#include "displaced_files.h"
#include "host_records.h"
#include "unique_fd.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

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

/// How many sockets a process has open.
inline size_t sockets_of(pid_t pid) {
    size_t count = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code closed; // meanwhile
        count += std::filesystem::read_symlink(fd, closed).string().starts_with("socket:") ? 1 : 0;
    }
    return count;
}

/// How often `part` stands in `text`.
inline size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

/// A library, and a variable for it, that a daemon started meanwhile finds in its environment.
class preloaded {
public:
    preloaded(const char* library, const char* variable, const std::string& value) : variable_(variable) {
        // A sanitizer's library wants to be the first one, unless told otherwise.
        setenv("ASAN_OPTIONS", (asan_options_ + ":verify_asan_link_order=0").c_str(), 1);
        // The loader takes a blank for the end of a name, and the build's folder may have one.
        std::filesystem::copy_file(library, kCopy, std::filesystem::copy_options::overwrite_existing);
        setenv("LD_PRELOAD", kCopy, 1);
        setenv(variable, value.c_str(), 1);
    }
    preloaded(const preloaded&) = delete;
    preloaded& operator=(const preloaded&) = delete;
    ~preloaded() {
        unsetenv(variable_);
        unsetenv("LD_PRELOAD");
        setenv("ASAN_OPTIONS", asan_options_.c_str(), 1);
    }

private:
    static constexpr const char* kCopy = "/tmp/preloaded.so";

    static std::string given(const char* variable) {
        const char* value = getenv(variable);
        return value != nullptr ? value : "";
    }
    const std::string asan_options_ = given("ASAN_OPTIONS");
    const char* variable_;
};

/// A fifo at which a child of the daemon, or a part of the daemon, waits: it opens the fifo and reads to its end.
class fifo_gate {
public:
    fifo_gate() { EXPECT_EQ(mkfifo(path().c_str(), 0600), 0); }
    [[nodiscard]] std::string path() const { return folder_ / "gate"; }
    /// Waits until somebody stands there. From then on until let_go(), or this object's end, they go on standing there.
    [[nodiscard]] bool is_reached() {
        return wait_until([this] {
            end_.reset(open(path().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            return end_.ok();
        });
    }
    void let_go() { end_.reset(); }

private:
    test_folder folder_;
    unique_fd end_;
};

/// The C library's choice where the kernel has no such call of its own.
#ifdef SYS_pause
inline constexpr long kPause = SYS_pause;
inline constexpr long kEpollWait = SYS_epoll_wait;
#else
inline constexpr long kPause = SYS_ppoll;
inline constexpr long kEpollWait = SYS_epoll_pwait;
#endif

/// The system call that thread `thread` of process `pid` waits in, or -1.
inline long waits_in(pid_t pid, pid_t thread) {
    long number = -1;
    std::ifstream("/proc/" + std::to_string(pid) + "/task/" + std::to_string(thread) + "/syscall") >> number;
    return number; // a running thread's is no number
}

/// The threads of process `pid`, less the main one, that wait in the system call `number`.
inline std::vector<pid_t> threads_in(pid_t pid, long number) {
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        const pid_t thread = static_cast<pid_t>(std::stol(task.path().filename()));
        if (thread != pid && waits_in(pid, thread) == number) {
            found.push_back(thread);
        }
    }
    return found;
}

/// The processes that a thread of process `pid` has started and not waited for yet.
inline std::vector<pid_t> children_of(pid_t pid) {
    std::vector<pid_t> found;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        std::ifstream children(task.path() / "children");
        for (pid_t child = 0; children >> child;) {
            found.push_back(child);
        }
    }
    return found;
}

/// Mails under way in daemon `pid`: the mail program, a child of the daemon for each, waits until this object's end.
class waiting_mails {
public:
    explicit waiting_mails(pid_t pid, size_t count = 1) {
        program_.replace_by_script("/usr/sbin/sendmail", "exec /bin/cat " + gate_.path());
        for (const char* file : {"m.conf", "m.txt"}) {
            write_file(std::string("/tmp/vexsurveillance_sendmail/") + file, "x");
        }
        std::filesystem::create_directories("/tmp/.vexsurveillance_log");
        for (size_t i = 0; i < count; ++i) {
            clients_.emplace_back([] {
                std::string reply;
                (void)call_service(kMail, "sendmail",
                                   R"({"user":"","pwd":"","config_file":"m.conf","content_file":"m.txt"})", &reply, 60);
            });
        }
        EXPECT_TRUE(gate_.is_reached()) << "no mail program was started";
        EXPECT_TRUE(wait_until([&] { return threads_in(pid, SYS_wait4).size() == count; }));
    }
    waiting_mails(const waiting_mails&) = delete;
    waiting_mails& operator=(const waiting_mails&) = delete;
    ~waiting_mails() {
        gate_.let_go();
        for (std::thread& client : clients_) {
            client.join();
        }
    }

private:
    displaced_files program_;
    fifo_gate gate_;
    std::vector<std::thread> clients_;
};

/// The path of a service's socket.
inline std::string socket_path(const char* service) {
    ks_handle* handle = ks_create(service, KS_PTHREAD_MODE, 1, [](const char*, ks_io*, int) { return 0; });
    std::string path = handle->sockfile;
    ks_free(handle);
    return path;
}

#endif
