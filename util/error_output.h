// What the daemon says on standard error while it serves.
#ifndef VEXPROD_UTIL_ERROR_OUTPUT_H
#define VEXPROD_UTIL_ERROR_OUTPUT_H

/// Writes the text (printf(3), cut to 1023 bytes) to standard error in one write, or drops it if that would block:
/// standard error may be a pipe that nobody reads, and a thread blocked there would neither relay nor stop. Keeps
/// errno. Any thread.
void print_error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

#endif
