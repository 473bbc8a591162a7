// The limit of open descriptors (RLIMIT_NOFILE): raised for the daemon, restored for its children.
//
// Every request in flight holds several descriptors, so the daemon takes all that the hard limit allows. The tools that
// it starts must not see that: many use the soft limit to size tables or to close descriptors in a loop.
#ifndef VEXPROD_UTIL_DESCRIPTOR_LIMIT_H
#define VEXPROD_UTIL_DESCRIPTOR_LIMIT_H

#include <sys/resource.h>

/// Raises the soft limit to the hard limit and remembers the old value. Called once, at start-up; a later call raises
/// again but keeps the first value. A limit that cannot be raised stays as it was.
void raise_descriptor_limit();

/// @param ret_limit  Receives the limit for a child: the remembered soft limit, at most the current hard limit.
///                   Untouched if there is nothing to restore.
/// @return Whether the limit was raised. Any thread.
bool original_descriptor_limit(struct rlimit* ret_limit);

#endif
