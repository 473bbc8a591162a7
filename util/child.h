// The only place where a child process is made. Both families of runner.h use it.
//
// The child is made with vfork(): it borrows the parent's memory until exec, so its cost does not grow with the
// daemon's size. The price is that until then it may only make system calls. Whatever needs memory or a lock
// (arguments, environment, descriptors, the limit to restore) is therefore prepared beforehand.
#ifndef VEXPROD_UTIL_CHILD_H
#define VEXPROD_UTIL_CHILD_H

#include "unique_fd.h"

#include <sys/types.h>

/// A child's standard streams. Each descriptor is 3 or above and close-on-exec, see
/// above_standard_streams(), so that moving one onto 0, 1 or 2 never overwrites another.
struct child_streams {
    unique_fd in; ///< Nothing = standard input as inherited.
    unique_fd out;
    unique_fd err;
};

/// Starts `path` in a child with exactly the descriptors 0, 1 and 2, all signals at their default actions and
/// unblocked, and the descriptor limit that the daemon was started with.
/// @param argv, envp  NULL-terminated, borrowed.
/// @param streams     Borrowed: the caller closes them.
/// @return The child's pid, for wait_for_child(); or -1 and errno if there is no child. A child that cannot execute
///         `path` still exists, and exits with status 127. Any thread.
pid_t start_child(const char* path, char* const* argv, char* const* envp, const child_streams& streams) noexcept;

/// Waits for that child only; signals do not end the wait.
/// @return The raw wait status, or -1 and errno if there is no such child.
int wait_for_child(pid_t pid) noexcept;

#endif
