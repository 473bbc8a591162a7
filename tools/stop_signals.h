// SIGINT and SIGTERM as something to wait for.
#pragma once

#include "unique_fd.h"

namespace ksctl {

/// Made before any thread is: both signals are blocked from then on, in this thread and those that it starts.
class stop_signals {
public:
    stop_signals();
    [[nodiscard]] bool ok() const { return fd_.ok(); } ///< False and errno when they cannot be waited for.
    /// Waits for one of them, or until `fd` can be read. @return Whether it was a signal.
    [[nodiscard]] bool came_before(int fd) const;

private:
    unique_fd fd_;
};

} // namespace ksctl
