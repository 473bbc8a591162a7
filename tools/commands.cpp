#include "commands.h"

#include "ksctl.h"
#include "kservice.h"
#include "near_name.h"
#include "service_socket.h"

#include <algorithm>
#include <cstddef>

namespace ksctl {

namespace {

constexpr std::size_t kLongestCommand = sizeof(directive::data) - 1;

} // namespace

const std::vector<documented_command>& commands() {
    static const std::vector<documented_command> all = read_command_document(command_text);
    return all;
}

const documented_command* find_command(std::string_view service, std::string_view name) {
    const std::string full_name = full_service_name(std::string(service));
    const auto found = std::find_if(commands().begin(), commands().end(), [&](const documented_command& each) {
        return each.service == full_name && each.name == name;
    });
    return found != commands().end() ? &*found : nullptr;
}

std::string about_unknown_command(std::string_view service, std::string_view name) {
    const std::string full_name = full_service_name(std::string(service));
    std::vector<std::string> own;
    const documented_command* elsewhere = nullptr;
    for (const documented_command& each : commands()) {
        if (each.service == full_name) {
            own.push_back(each.name);
        } else if (each.name == name) {
            elsewhere = &each;
        }
    }
    if (own.empty() || std::find(own.begin(), own.end(), name) != own.end()) {
        return "";
    }
    const std::string begin = full_name + " is not known to have a command " + std::string(name);
    if (elsewhere != nullptr) {
        return begin + "; " + elsewhere->section + " (" + elsewhere->service + ") has it";
    }
    const std::string question = did_you_mean(near_names(name, own));
    return begin + "; " + (question.empty() ? "ksctl commands lists those that it has" : question);
}

bool check_command(const std::string& service, const std::string& name) {
    if (name.empty()) {
        (void)fail(kBadArgument, "bad argument: the command has no name");
        return false;
    }
    if (name.size() > kLongestCommand) {
        (void)fail(kBadArgument, "bad argument: a command has at most %zu characters, this one has %zu",
                   kLongestCommand, name.size());
        return false;
    }
    if (const std::string hint = about_unknown_command(service, name); !hint.empty()) {
        (void)fail(kSuccess, "%s", hint.c_str());
    }
    return true;
}

bool check_has_commands(const std::string& service, const char* subcommand) {
    const std::string full_name = full_service_name(service);
    if (service.empty() || std::any_of(commands().begin(), commands().end(),
                                       [&](const documented_command& each) { return each.service == full_name; })) {
        return true;
    }
    (void)fail(kUsage, "--service: %s not in {main,mail} (see ksctl %s --help)", service.c_str(), subcommand);
    return false;
}

} // namespace ksctl
