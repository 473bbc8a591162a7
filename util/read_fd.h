// Reading descriptors to their end, whatever signals arrive meanwhile.
#ifndef VEXPROD_UTIL_READ_FD_H
#define VEXPROD_UTIL_READ_FD_H

#include <cstddef>
#include <string>

/// Reads until the end, an error or `limit_bytes`, whichever comes first. Not for what a tool prints into a pipe, see
/// read_output().
/// @return What was read; an error after some bytes ends the text there.
std::string read_to_end(int fd, std::size_t limit_bytes);

#endif
