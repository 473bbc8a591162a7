// ksctl commands: what the daemon can be asked.
#include "commands.h"
#include "ksctl.h"
#include "service_socket.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace ksctl {

namespace {

// Columns as wide as the widest entry of the whole list, so that a part of it looks like the whole.
int list_commands(const std::string& service) {
    if (!check_has_commands(service, "commands")) {
        return kUsage;
    }
    std::size_t width = 0;
    for (const documented_command& each : commands()) {
        width = std::max(width, each.name.size());
    }
    std::string table;
    for (const documented_command& each : commands()) {
        if (service.empty() || full_service_name(service) == each.service) {
            std::string name = each.name;
            name.resize(width, ' ');
            table += each.section + "  " + name + "  " + each.summary + '\n';
        }
    }
    return print(table) ? kSuccess : kFailure;
}

declaration declare() {
    auto service = std::make_shared<std::optional<std::string>>();
    return {{{"--service", service.get(), "Only this service's: main or mail", "NAME"}},
            [service] { return list_commands(service->value_or("")); }};
}

} // namespace

const command cmd_commands = {
    "commands", "List the daemon's commands",
    "Prints the service, the command's name and what it is for, as vexprod-commands(7) has them.\n"
    "The service is main (VexHubServer-vexprod) or mail (VexHubServer_send_mail-vexprod).",
    "ksctl commands --service mail", declare};

} // namespace ksctl
