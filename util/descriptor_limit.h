// The limit of open descriptors (RLIMIT_NOFILE): raised for the daemon, given back to its children.
//
// Every request in flight holds several descriptors, so the daemon takes all that the hard limit allows. The tools that
// it starts must not see that: many size tables, or close descriptors in a loop, by the soft limit.
#ifndef VEXPROD_UTIL_DESCRIPTOR_LIMIT_H
#define VEXPROD_UTIL_DESCRIPTOR_LIMIT_H

#include <sys/resource.h>

/// Raises the soft limit to the hard limit and remembers what it was. Called once, at start-up; a later call raises
/// again but keeps the first memory. A limit that cannot be raised stays as it was.
void raise_descriptor_limit();

/// @param ret_limit  Receives the limit that a child gets: the remembered soft limit under the present hard limit.
///                   Untouched when there is nothing to give back.
/// @return Whether the limit was raised. Any thread.
bool original_descriptor_limit(struct rlimit* ret_limit);

#endif
