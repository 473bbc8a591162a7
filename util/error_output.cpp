#include "error_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <poll.h>
#include <unistd.h>

void print_error(const char* fmt, ...) {
    const int saved_errno = errno;
    char text[1024]; // less than PIPE_BUF: a pipe that has room takes all of it
    std::va_list arguments;
    va_start(arguments, fmt);
    const int wanted = std::vsnprintf(text, sizeof text, fmt, arguments);
    va_end(arguments);
    const int length = std::clamp(wanted, 0, static_cast<int>(sizeof text) - 1);
    {
        static std::mutex one_at_a_time; // or two threads would find room for one
        const std::lock_guard lock(one_at_a_time);
        pollfd output = {STDERR_FILENO, POLLOUT, {}};
        if (::poll(&output, 1, 0) == 1) {
            [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, static_cast<std::size_t>(length));
        }
    }
    errno = saved_errno;
}
