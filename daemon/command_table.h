// Maps commands to handlers.
#ifndef VEXPROD_DAEMON_COMMAND_TABLE_H
#define VEXPROD_DAEMON_COMMAND_TABLE_H

#include "kservice.h"

#include <span>

struct command_entry {
    const char* command; ///< Compared exactly.
    int (*handler)(ks_io* io, int fd);
};

/// The main service's commands, in search order: the first match counts.
std::span<const command_entry> main_commands();

/// The mail service's commands.
std::span<const command_entry> mail_commands();

#endif
