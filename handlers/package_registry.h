// The host's package registry: where a package is installed, and this package's control script.
#ifndef VEXPROD_HANDLERS_PACKAGE_REGISTRY_H
#define VEXPROD_HANDLERS_PACKAGE_REGISTRY_H

#include <string>
#include <vector>

/// @return The path of `file` in the folder that the registry names for `package`; empty if it names none. A registry
///         value has at most 127 characters, so no path has to be cut.
[[nodiscard]] std::string installed_file(const char* package, const char* file);

/// Runs this package's control script with an empty environment and waits.
/// @param arguments  After argument 0, the script's base name. An entry ends at its first NUL.
/// @return Raw wait status, or -1 if the registry names no script.
[[nodiscard]] int run_control_script(std::vector<std::string> arguments);

#endif
