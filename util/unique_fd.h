// An owned file descriptor. Parameters that borrow a descriptor take `int`; those that take ownership take
// `unique_fd&&` or `unique_fd` by value.
#ifndef VEXPROD_UTIL_UNIQUE_FD_H
#define VEXPROD_UTIL_UNIQUE_FD_H

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

class unique_fd {
public:
    unique_fd() noexcept = default;
    explicit unique_fd(int fd) noexcept : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; } ///< Still owned here; -1 = nothing.
    [[nodiscard]] bool ok() const noexcept { return fd_ >= 0; }

    /// Hands the descriptor over to the caller.
    [[nodiscard]] int release() noexcept {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    /// Closes what is owned and takes over `fd`. Keeps errno, so that the cause of a failure survives clean-up.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            const int saved_errno = errno;
            (void)::close(fd_); // Linux frees the number whatever close() returns
            errno = saved_errno;
        }
        fd_ = fd;
    }

    bool operator!() const = delete; ///< Descriptor 0 is a descriptor: use ok().

private:
    int fd_ = -1;
};

int close(const unique_fd&) = delete; ///< Would close twice: call reset().

/// Moves a descriptor that landed on 0, 1 or 2 (the process may run with any of them closed) to 3 or above,
/// close-on-exec: those three numbers are the standard streams, and a child started meanwhile would inherit them.
/// @return The descriptor, or nothing and errno if it cannot be moved.
inline unique_fd above_standard_streams(unique_fd fd) noexcept {
    if (!fd.ok() || fd.get() > STDERR_FILENO) {
        return fd;
    }
    return unique_fd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

#endif
