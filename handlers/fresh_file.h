// Files that the daemon writes where others may have planted something.
#ifndef VEXPROD_HANDLERS_FRESH_FILE_H
#define VEXPROD_HANDLERS_FRESH_FILE_H

#include "unique_fd.h"

#include <sys/types.h>

/// Removes what is at `path`, then creates a new file there and opens it for writing. Whatever was planted at the name
/// (a link, a file that somebody else owns or holds open) neither receives the content nor determines the mode.
/// Concurrent callers each get a file; the last one's keeps the name.
/// @return Nothing and errno if the file cannot be created.
unique_fd create_anew(const char* path, mode_t mode);

#endif
