// A host command given as JSON.
#ifndef VEXPROD_UTIL_EXEC_CLI_H
#define VEXPROD_UTIL_EXEC_CLI_H

#include <string>

/// Runs the command of `input`, a JSON object whose member "command" is an array of the program's path and its
/// arguments, with an empty environment; only its standard output is kept.
/// @param output  Replaced: the first 5120 bytes of the program's output, up to the first NUL; or the error. May be the
///                same string as `input`.
/// @return 0, even if the program failed or could not be run; -1 ("Read command fail.") without a command in `input`;
///         -2 ("malloc fail.") when memory runs out.
int exec_cli(const std::string& input, std::string& output);

#endif
