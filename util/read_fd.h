// Reading descriptors to end of file, despite signals.
#ifndef VEXPROD_UTIL_READ_FD_H
#define VEXPROD_UTIL_READ_FD_H

#include <cstddef>
#include <string>

/// Reads until end of file, an error or `limit_bytes`, whichever comes first. Not for a tool's output from a pipe, see
/// read_output().
/// @return What was read; an error after some bytes ends the text there.
std::string read_to_end(int fd, std::size_t limit_bytes);

#endif
