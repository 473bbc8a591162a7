// What the daemon says on standard error while it serves.
#ifndef VEXPROD_UTIL_ERROR_OUTPUT_H
#define VEXPROD_UTIL_ERROR_OUTPUT_H

/// Writes the text (printf(3), cut after 1023 bytes) to standard error in one piece, if that takes it at once; else it
/// is lost. Whoever started the daemon may have given it a pipe and not read it: a thread that waited there would
/// neither relay nor stop. Keeps errno. Any thread.
void print_error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

#endif
