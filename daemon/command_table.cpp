#include "command_table.h"

#include "handlers.h"

namespace {

#define VEXPROD_MAIN_COMMAND(command, function) {command, function},
#define VEXPROD_MAIL_COMMAND(command, function)
constexpr command_entry handler[] = {
#include "commands.inc"
};
#undef VEXPROD_MAIN_COMMAND
#undef VEXPROD_MAIL_COMMAND

#define VEXPROD_MAIN_COMMAND(command, function)
#define VEXPROD_MAIL_COMMAND(command, function) {command, function},
constexpr command_entry sendmail_handler[] = {
#include "commands.inc"
};
#undef VEXPROD_MAIN_COMMAND
#undef VEXPROD_MAIL_COMMAND

} // namespace

std::span<const command_entry> main_commands() {
    return handler;
}

std::span<const command_entry> mail_commands() {
    return sendmail_handler;
}
