// The one place where a child process is made. Both families of runner.h stand on it.
//
// The child is made with vfork(): it borrows the parent's memory until it has become the program, so its cost does not
// grow with the daemon's size. The price is that between the two calls it may do nothing but make system calls.
// Whatever needs memory or a lock (arguments, environment, descriptors, the limit to restore) is therefore ready
// before.
#ifndef VEXPROD_UTIL_CHILD_H
#define VEXPROD_UTIL_CHILD_H

#include "unique_fd.h"

#include <sys/types.h>

/// What a child gets as its standard streams. Each descriptor is 3 or above and close-on-exec, see
/// above_standard_streams(), so that moving one onto 0, 1 or 2 never overwrites another.
struct child_streams {
    unique_fd in; ///< Nothing = standard input as inherited.
    unique_fd out;
    unique_fd err;
};

/// Starts `path` in a child that has exactly the descriptors 0, 1 and 2, every signal at its default action and none
/// blocked, and the descriptor limit that the daemon was started with.
/// @param argv, envp  NULL-terminated, borrowed.
/// @param streams     Borrowed: the caller closes them.
/// @return The child's id, to be waited for with wait_for_child(); or -1 and errno when there is no child. A child that
///         cannot execute `path` exists nevertheless, and exits with status 127. Any thread.
pid_t start_child(const char* path, char* const* argv, char* const* envp, const child_streams& streams) noexcept;

/// Waits for that child alone; a signal that arrives meanwhile does not end the wait.
/// @return The raw wait status, or -1 and errno when there is no such child to wait for.
int wait_for_child(pid_t pid) noexcept;

#endif
