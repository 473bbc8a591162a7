// Files that the daemon writes where others may have put something before.
#ifndef VEXPROD_HANDLERS_FRESH_FILE_H
#define VEXPROD_HANDLERS_FRESH_FILE_H

#include "unique_fd.h"

#include <sys/types.h>

/// Removes what stands at `path`, then creates a file of its own there and opens it for writing. Whatever was planted
/// at the name (a link, a file that somebody else owns or holds open) neither receives the content nor lends its mode.
/// Of a few callers at once each gets a file; the name is that of the last.
/// @return Nothing and errno when the file cannot be created.
unique_fd create_anew(const char* path, mode_t mode);

#endif
