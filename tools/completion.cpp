#include "completion.h"

#include "commands.h"
#include "service_socket.h"

#include <algorithm>
#include <string_view>

namespace ksctl {

namespace {

// The words before the last one, told apart.
struct reading {
    std::vector<std::string> arguments;
    std::string open_option; // the last of them, when it still wants its value
};

reading read_words(const std::vector<std::string>& words, const subcommand_words& subcommand) {
    reading result;
    for (std::size_t i = 1; i + 1 < words.size(); ++i) {
        const std::string& word = words[i];
        const auto option = std::find_if(subcommand.options.begin(), subcommand.options.end(),
                                         [&word](const option_words& each) { return each.name == word; });
        if (!result.open_option.empty()) {
            result.open_option.clear();
        } else if (option != subcommand.options.end()) {
            result.open_option = option->takes_value ? word : "";
        } else if (!word.starts_with('-')) {
            result.arguments.push_back(word);
        }
    }
    return result;
}

std::vector<candidate> services() {
    std::vector<candidate> found;
    for (const known_service& each : kKnownServices) {
        if (*each.alias != '\0') {
            found.push_back({each.alias, each.name});
        }
    }
    for (const known_service& each : kKnownServices) {
        found.push_back({each.name, ""});
    }
    return found;
}

// @param service  Empty = of all services.
std::vector<candidate> command_names(const std::string& service) {
    std::vector<candidate> found;
    for (const documented_command& each : commands()) {
        if (service.empty() || each.service == full_service_name(service)) {
            found.push_back({each.name, each.summary});
        }
    }
    return found;
}

std::string empty_value(const documented_key& key) {
    return key.type == "string" ? "\"\"" : key.type == "array" ? "[]" : key.type == "bool" ? "false" : "0";
}

// Nothing typed: a request with every key that is needed. Behind `{"` or `,"`: the keys that are not there yet.
std::vector<candidate> requests(const documented_command& command, const std::string& typed) {
    std::vector<candidate> found;
    const std::vector<documented_key> keys = command.keys();
    if (typed.empty()) {
        std::string request;
        for (const documented_key& key : keys) {
            if (key.required) {
                request += (request.empty() ? "{\"" : ",\"") + key.name + "\":" + empty_value(key);
            }
        }
        if (!request.empty()) {
            found.push_back({request + '}', "every key that is needed"});
        }
        return found;
    }
    const std::size_t quote = typed.rfind('"');
    if (quote == std::string::npos || quote == 0 || (typed[quote - 1] != '{' && typed[quote - 1] != ',')) {
        return found;
    }
    const bool in_rules = typed.find("\"rule_list\":[") != std::string::npos;
    for (const documented_key& key : keys) {
        if (key.of_rule == in_rules && typed.find('"' + key.name + "\":") == std::string::npos) {
            found.push_back({typed.substr(0, quote + 1) + key.name + "\":", key.type + ": " + key.meaning});
        }
    }
    return found;
}

std::vector<candidate> argument(const std::string& kind, const reading& before, const std::string& typed) {
    const std::string service = before.arguments.empty() ? "" : before.arguments.front();
    if (kind == "SERVICE" || kind == "WORDS") { // of conform
        return services();
    }
    if (kind == "COMMAND") {
        return command_names(service);
    }
    if (kind == "REQUEST" && before.arguments.size() == 2) {
        const documented_command* command = find_command(service, before.arguments.back());
        return command != nullptr ? requests(*command, typed) : std::vector<candidate>();
    }
    return {};
}

std::vector<candidate> all(const std::vector<std::string>& words, const std::vector<subcommand_words>& subcommands) {
    std::vector<candidate> found;
    if (words.size() == 1) {
        for (const subcommand_words& each : subcommands) {
            found.push_back({each.name, each.meaning});
        }
        found.push_back({"--help", "print the exit statuses as well"});
        found.push_back({"--version", ""});
        return found;
    }
    const auto subcommand = std::find_if(subcommands.begin(), subcommands.end(),
                                         [&](const subcommand_words& each) { return each.name == words.front(); });
    if (subcommand == subcommands.end()) {
        return found;
    }
    const reading before = read_words(words, *subcommand);
    if (before.open_option == "--service") {
        return argument("SERVICE", {}, "");
    }
    if (before.open_option == "--command") {
        return argument("COMMAND", before, "");
    }
    if (!before.open_option.empty()) {
        return found;
    }
    if (words.back().starts_with('-')) {
        for (const option_words& each : subcommand->options) {
            found.push_back({each.name, each.meaning});
        }
        return found;
    }
    const std::size_t index = before.arguments.size();
    return index < subcommand->arguments.size() ? argument(subcommand->arguments[index], before, words.back()) : found;
}

} // namespace

std::vector<candidate> candidates(const std::vector<std::string>& words,
                                  const std::vector<subcommand_words>& subcommands) {
    if (words.empty()) {
        return {};
    }
    std::vector<candidate> found = all(words, subcommands);
    std::erase_if(found, [&](const candidate& each) { return !each.text.starts_with(words.back()); });
    return found;
}

} // namespace ksctl
