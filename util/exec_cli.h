// A host command given as JSON.
#ifndef VEXPROD_UTIL_EXEC_CLI_H
#define VEXPROD_UTIL_EXEC_CLI_H

#include <string>

/// Runs the command of `input`, a JSON object whose member "command" is an array of the program's path and its
/// arguments, with an empty environment; only its standard output is kept.
/// @param output  Replaced: the first 5120 bytes of what the program printed, up to the first NUL; or what went wrong.
///                May be the same text as `input`.
/// @return 0, also when the program failed or could not be run; -1 ("Read command fail.") when there is no command in
///         `input`; -2 ("malloc fail.") when memory runs out.
int exec_cli(const std::string& input, std::string& output);

#endif
