// What the launcher's files share: the request, and failure as an exception that names the step.
#ifndef VEXPROD_HOSTSIM_LAUNCHER_H
#define VEXPROD_HOSTSIM_LAUNCHER_H

#include <cerrno>
#include <string>
#include <system_error>
#include <unistd.h>
#include <utility>

/// What to show inside. All paths absolute and free of symbolic links.
struct host_view {
    std::string project; ///< The project's tree, writable inside at the same path.
    std::string build;   ///< The build folder, likewise; need not exist.
    std::string cwd;     ///< Where the command starts.
    bool user_namespace; ///< True when root inside is an ordinary user outside.
};

/// Replaces the calling process's root by the simulated host. Call as process 1 of fresh mount and pid namespaces.
/// Throws std::system_error that names the step.
void become_host(const host_view& view);

/// Makes the host's own files below the directory `layer`, at their paths.
void fill_layer(const host_view& view, const std::string& layer);

/// Copies the tree `from` under the directory `to`. A directory that is a symbolic link on this machine, such as
/// /sbin, is followed, so that a copied tree never hides what the link leads to. Modes are 0755 or 0644 by the x bit.
void copy_tree(const std::string& from, const std::string& to);

/// Gives one program every path that `list_file` names (one per line), as hard links under the directory `to`.
void install_tools(const std::string& program, const std::string& list_file, const std::string& to);

/// Stops with the current errno and the step that failed.
[[noreturn]] inline void fail(const std::string& step) {
    throw std::system_error(errno, std::generic_category(), step);
}

inline void check(bool ok, const std::string& step) {
    if (!ok) {
        fail(step);
    }
}

/// Owns one descriptor.
class unique_fd {
public:
    explicit unique_fd(int fd = -1) noexcept : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] bool ok() const noexcept { return fd_ >= 0; }
    void reset() noexcept {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

private:
    int fd_;
};

#endif
