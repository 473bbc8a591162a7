// What the two families of runner.h share in front of start_child(): opening redirections, collecting arguments.
#ifndef VEXPROD_UTIL_REDIRECTION_H
#define VEXPROD_UTIL_REDIRECTION_H

#include "argument_vector.h"
#include "unique_fd.h"

#include <cstdarg>
#include <optional>

/// The variable that no child of the second generation inherits.
inline constexpr const char* kLibraryPathVariable = "LD_LIBRARY_PATH";

inline constexpr const char* kNullDevice = "/dev/null";

/// Whether both are given and the same text.
bool same_file_name(const char* one, const char* other) noexcept;

/// Opens a child's standard input. @return Nothing and errno on failure.
unique_fd open_input(const char* file) noexcept;

/// Opens a child's standard output: `file`, created 0774 and truncated, or the null device when null.
/// @return Nothing and errno on failure.
unique_fd open_output(const char* file) noexcept;

/// Opens a child's standard error.
/// @param shared_fd  Borrowed: the output descriptor to duplicate, so that both share one file position; -1 = open
/// `file`.
unique_fd open_error(const char* file, int shared_fd) noexcept;

/// Removes `file` unless null. That it is not there, or no plain file, is no failure. Keeps errno.
void remove_output(const char* file) noexcept;

/// The vector of a variadic call: the base name of `path`, then `arguments` up to the null pointer, all copied.
/// @return Nothing when memory runs out.
std::optional<argument_vector> collect_arguments(const char* path, std::va_list arguments) noexcept;

#endif
