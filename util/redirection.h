// What the two families of runner.h share in front of start_child(): opening redirections, collecting arguments.
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

/// Opens the output unless `streams` has one, the error, and the input if it is named, as runner.h says. Where there is
/// an output the input comes before the error.
/// @param trace    Told of a file for both outputs, and of one that cannot be opened; null = nobody is.
/// @param streams  Receives them. On failure it has those that could be opened.
/// @return False when one cannot be had; without a trace, errno says why.
bool open_redirections(const redirections& files, FILE* trace, child_streams* streams) noexcept;

/// Removes the output files that are named. One that is not there, or no plain file, is no failure. Keeps errno.
void remove_outputs(const redirections& files) noexcept;

/// The vector of a variadic call: the base name of `path`, then `arguments` up to the null pointer, all copied.
/// @return Nothing when memory runs out.
std::optional<argument_vector> collect_arguments(const char* path, std::va_list arguments) noexcept;

#endif
