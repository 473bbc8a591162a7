// SIGINT and SIGTERM as a waitable event.
#pragma once

#include "unique_fd.h"

namespace ksctl {

/// To be made before any thread: it blocks both signals in this thread and those that it starts.
class stop_signals {
public:
    stop_signals();
    [[nodiscard]] bool ok() const { return fd_.ok(); } ///< False and errno when they cannot be waited for.
    /// Waits for one of them, or until `fd` is readable. @return Whether it was a signal.
    [[nodiscard]] bool came_before(int fd) const;

private:
    unique_fd fd_;
};

} // namespace ksctl
