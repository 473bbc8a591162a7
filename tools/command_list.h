// The daemon's commands, as ksctl knows them: a list for people, not a check. It is made from docs/commands.md when
// ksctl is built (generate_command_list.cmake), and the test suite holds that document against the daemon.
#pragma once

#include <span>
#include <string_view>

namespace ksctl {

struct command_summary {
    const char* section; ///< How `ksctl commands` calls the service: "main" or "mail".
    const char* service; ///< The service's own name.
    const char* name;
    const char* summary; ///< One line.
};

/// All commands of all services, in the order in which the daemon has them.
std::span<const command_summary> command_list();

/// A command of `service` whose name is at most two letters away from `name`: left out, put in or replaced. The nearest
/// one, of several the first.
/// @return nullptr when there is none, when `name` is a command itself, and for services whose commands are not known.
const command_summary* near_command(std::string_view service, std::string_view name);

} // namespace ksctl
