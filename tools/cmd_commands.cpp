// ksctl commands: what the daemon can be asked.
#include "command_list.h"
#include "ksctl.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace ksctl {

namespace {

// Columns as wide as the widest entry of the whole list, so that a part of it looks like the whole.
int list_commands(const std::string& section) {
    std::size_t width = 0;
    for (const command_summary& each : command_list()) {
        width = std::max(width, std::string_view(each.name).size());
    }
    std::string table;
    for (const command_summary& each : command_list()) {
        if (section.empty() || section == each.section) {
            std::string name = each.name;
            name.resize(width, ' ');
            table += std::string(each.section) + "  " + name + "  " + each.summary + '\n';
        }
    }
    return print(table) ? kSuccess : kFailure;
}

std::function<int()> declare(CLI::App& app) {
    auto section = std::make_shared<std::string>();
    std::set<std::string> sections;
    for (const command_summary& each : command_list()) {
        sections.insert(each.section);
    }
    app.add_option("--service", *section, "Only this service's: main or mail")
        ->type_name("NAME")
        ->check(CLI::IsMember(sections));
    return [section] { return list_commands(*section); };
}

} // namespace

const command cmd_commands = {
    "commands", "List the daemon's commands",
    "Prints the service, the command's name and what it is for, as docs/commands.md has them.\n"
    "The service is main (VexHubServer-vexprod) or mail (VexHubServer_send_mail-vexprod).",
    "ksctl commands --service mail", declare};

} // namespace ksctl
