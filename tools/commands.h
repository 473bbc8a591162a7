// The daemon's commands, as ksctl knows them: for people, not a check. docs/commands.md is built into ksctl, and the
// test suite holds that document against the daemon.
#pragma once

#include "command_document.h"

#include <string>
#include <string_view>
#include <vector>

namespace ksctl {

/// The document's text.
extern const char* const command_text;

/// All commands of all services, in the order in which the daemon has them.
const std::vector<documented_command>& commands();

/// @param service  A service's own name, or "main" or "mail".
/// @return nullptr for a command that is not known, and for services whose commands are not known.
const documented_command* find_command(std::string_view service, std::string_view name);

/// What to say about the command `name` of `service`, which is not in the list: that, and nearly the same names, or the
/// service that has it. @return Nothing for a command that is known, and for services whose commands are not known.
std::string about_unknown_command(std::string_view service, std::string_view name);

/// Whether `service`, the argument of an option --service, is empty or a service whose commands are known; if not, that
/// has been reported. @param subcommand  Whose help is pointed to.
[[nodiscard]] bool check_has_commands(const std::string& service, const char* subcommand);

} // namespace ksctl
