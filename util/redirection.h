// What the two families of runner.h do before start_child(): open redirections, collect arguments.
#ifndef VEXPROD_UTIL_REDIRECTION_H
#define VEXPROD_UTIL_REDIRECTION_H

#include "argument_vector.h"
#include "child.h"

#include <cstdarg>
#include <cstdio>
#include <optional>

/// The variable that no child of the second generation inherits.
inline constexpr const char* kLibraryPathVariable = "LD_LIBRARY_PATH";

/// The files that a caller names for a child's standard streams. All borrowed, and each may be null.
struct redirections {
    const char* stdin_file;
    const char* stdout_file;
    const char* stderr_file;
};

/// Opens the output unless `streams` has one, the error, and the input if it is named, as runner.h says. If there is an
/// output, the input is opened before the error.
/// @param trace    Logs a file shared by both outputs, and one that cannot be opened; may be null.
/// @param streams  Receives them; on failure, those that could be opened.
/// @return False if one cannot be opened; without a trace, errno says why.
bool open_redirections(const redirections& files, FILE* trace, child_streams* streams) noexcept;

/// Removes the named output files. A missing one, or one that is not a regular file, is no failure. Keeps errno.
void remove_outputs(const redirections& files) noexcept;

/// The vector of a variadic call: the base name of `path`, then `arguments` up to the null pointer, all copied.
/// @return Nothing if memory runs out.
std::optional<argument_vector> collect_arguments(const char* path, std::va_list arguments) noexcept;

#endif
