// The real daemon as a child of the test.
#ifndef VEXPROD_TESTS_SYSTEM_DAEMON_PROCESS_H
#define VEXPROD_TESTS_SYSTEM_DAEMON_PROCESS_H

#include "kservice.h"
#include "scoped.h"
#include "test_files.h"
#include "wait.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

inline constexpr const char* kMain = "VexHubServer-vexprod";
inline constexpr const char* kMail = "VexHubServer_send_mail-vexprod";
inline constexpr const char* kDaemonLog = "/share/VexHubServer/.log/.lyn_ks_vexprod.log";

/// One call. @return The result code; the reply's bytes with code 0.
inline unsigned call_service(const char* service, const char* command, const std::string& request,
                             std::string* ret_reply, unsigned timeout_s = 10) {
    void* reply = nullptr;
    size_t size = 0;
    const unsigned code = ks_ez_call(service, command, request.data(), request.size(), &reply, &size, timeout_s, -1);
    const unique_heap<void> owner(reply);
    ret_reply->assign(static_cast<const char*>(reply), code == KS_OK ? size : 0);
    return code;
}

class daemon_process {
public:
    /// Starts the daemon; its standard streams go to files of folder(), the error stream to `error_output` if given.
    explicit daemon_process(std::vector<std::string> arguments = {}, int error_output = -1) {
        arguments.insert(arguments.begin(), VEXPROD_PROGRAM);
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (std::string& each : arguments) {
            argv.push_back(each.data());
        }
        argv.push_back(nullptr);
        const std::string out = folder_ / "stdout";
        const std::string err = folder_ / "stderr";
        // The mail service is left to process exit, so a request of its may have ended there without being joined.
        const char* given = getenv("TSAN_OPTIONS");
        const std::string tsan_options = std::string(given != nullptr ? given : "") + ":report_thread_leaks=0";
        pid_ = fork();
        if (pid_ == 0) {
            setenv("TSAN_OPTIONS", tsan_options.c_str(), 1);
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            dup2(error_output >= 0 ? error_output : open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                 STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(126);
        }
    }
    daemon_process(const daemon_process&) = delete;
    daemon_process& operator=(const daemon_process&) = delete;
    ~daemon_process() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] std::string standard_error() const { return read_file(folder_ / "stderr"); }
    [[nodiscard]] std::string standard_output() const { return read_file(folder_ / "stdout"); }

    /// Waits until both services answer.
    [[nodiscard]] bool serves() const {
        return wait_until([] {
            std::string reply;
            return call_service(kMain, "test", "", &reply) == 0 && call_service(kMail, "test", "", &reply) == 0;
        });
    }

    /// Waits for the end. @return The raw wait status, or -1 when it does not end within `seconds`.
    int wait(int seconds = 20) {
        int status = -1;
        const bool ended =
            wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, std::chrono::seconds(seconds));
        if (ended) {
            pid_ = -1;
        }
        return ended ? status : -1;
    }
    int stop(int signal = SIGTERM) {
        kill(pid_, signal);
        return wait();
    }

    /// Entries of one of the process's folders in /proc: "fd", "task".
    [[nodiscard]] size_t count(const char* what) const {
        size_t entries = 0;
        std::error_code error;
        for (const auto& each :
             std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/" + what, error)) {
            (void)each;
            ++entries;
        }
        return entries;
    }

    /// The same once it has stopped changing: the last request's closing is over.
    [[nodiscard]] size_t settled(const char* what) const {
        return ::settled([&] { return count(what); });
    }

private:
    test_folder folder_;
    pid_t pid_ = -1;
};

#endif
