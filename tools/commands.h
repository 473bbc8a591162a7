// The daemon's commands, as ksctl knows them: to inform people, not to validate. docs/commands.md is built into ksctl,
// and the test suite checks that document against the daemon.
#pragma once

#include "command_document.h"

#include <string>
#include <string_view>
#include <vector>

namespace ksctl {

/// The document's text.
extern const char* const command_text;

/// All commands of all services, in the daemon's order.
const std::vector<documented_command>& commands();

/// @param service  A service's own name, or "main" or "mail".
/// @return nullptr for an unknown command, and for services whose commands are unknown.
const documented_command* find_command(std::string_view service, std::string_view name);

/// A message about the command `name` of `service` that is not in the list: that, and similar names, or the service
/// that has it. @return Nothing for a known command, and for services whose commands are unknown.
std::string about_unknown_command(std::string_view service, std::string_view name);

/// Whether `name` can be a command of `service`; if not, reports that. Also tells of one that the service's list does
/// not have, which may be older than the service.
[[nodiscard]] bool check_command(const std::string& service, const std::string& name);

/// Whether `service`, the argument of an option --service, is empty or a service whose commands are known; if not,
/// reports that. @param subcommand  Whose help to point to.
[[nodiscard]] bool check_has_commands(const std::string& service, const char* subcommand);

} // namespace ksctl
