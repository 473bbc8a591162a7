#include "explain.h"

#include "daemon_files.h"
#include "json_helpers.h"
#include "near_name.h"

#include <json/value.h>

#include <algorithm>
#include <vector>

namespace ksctl {

namespace {

bool is_failure(const Json::Value& value) {
    return value.isNumeric() && value.asDouble() != 0;
}

std::string quoted(const std::string& text) {
    return '"' + text + '"';
}

// "LINE: what" of the reader's first complaint.
std::string syntax_error(const std::string& request) {
    Json::Value root;
    std::string error; // "* Line 1, Column 2\n  Syntax error: …\n"
    if (json_parse_stream(request, &root, &error)) {
        return "";
    }
    const std::size_t end_of_place = error.find('\n');
    const std::size_t begin = error.find_first_not_of(' ', end_of_place + 1);
    if (!error.starts_with("* ") || end_of_place == std::string::npos || begin == std::string::npos) {
        return "";
    }
    return ": " + error.substr(2, end_of_place - 2) + ": " + error.substr(begin, error.find('\n', begin) - begin);
}

std::string type_of(const Json::Value& value) {
    switch (value.type()) {
    case Json::nullValue:
        return "null";
    case Json::intValue:
    case Json::uintValue:
        return value.isInt() ? "int" : "long";
    case Json::realValue:
        return "double";
    case Json::stringValue:
        return "string";
    case Json::booleanValue:
        return "bool";
    case Json::arrayValue:
        return "array";
    case Json::objectValue:
        break;
    }
    return "object";
}

// The daemon converts what has a default, and is strict about the rest.
bool fits_type(const documented_key& key, const Json::Value& value) {
    const std::string type = type_of(value);
    if (type == key.type || (value.isNull() && !key.required)) {
        return true;
    }
    return !key.required && ((key.type == "string" && value.isConvertibleTo(Json::stringValue)) ||
                             (key.type == "int" && value.isConvertibleTo(Json::intValue)) ||
                             (key.type == "bool" && value.isConvertibleTo(Json::booleanValue)));
}

// What is wrong with one key of `object`. @param where  " of rule 1", or nothing.
std::string key_fault(const std::vector<documented_key>& keys, const documented_key& key, const Json::Value& object,
                      const std::string& where) {
    if (object.isMember(key.name)) {
        const Json::Value& value = object[key.name];
        return fits_type(key, value) ? ""
                                     : "key " + quoted(key.name) + where + " is of type " + type_of(value) +
                                           " and has to be of type " + key.type;
    }
    if (!key.required) {
        return "";
    }
    std::vector<std::string> strangers;
    for (const std::string& member : object.getMemberNames()) {
        if (std::none_of(keys.begin(), keys.end(), [&](const documented_key& each) { return each.name == member; })) {
            strangers.push_back(member);
        }
    }
    const std::vector<std::string> near = near_names(key.name, strangers);
    return "key " + quoted(key.name) + " (" + key.type + ") is missing" +
           (near.empty() ? "" : "; did you mean it by " + quoted(near.front()) + "?");
}

std::string request_fault(const documented_command& command, const std::string& request) {
    const std::vector<documented_key> keys = command.keys();
    if (keys.empty()) {
        return "";
    }
    Json::Value root;
    if (request.empty()) {
        return "the request is empty";
    }
    if (!json_parse(request, &root)) {
        return "the request is not JSON" + syntax_error(request);
    }
    if (!root.isObject()) {
        return "the request is not a JSON object but of type " + type_of(root);
    }
    for (const documented_key& key : keys) {
        if (!key.of_rule) {
            if (std::string fault = key_fault(keys, key, root, ""); !fault.empty()) {
                return fault;
            }
        }
    }
    const Json::Value& rules = root["rule_list"];
    for (Json::ArrayIndex i = 0; rules.isArray() && i < rules.size(); ++i) {
        for (const documented_key& key : keys) {
            if (key.of_rule && rules[i].isObject()) {
                const std::string where = " of rule " + std::to_string(i + 1);
                if (std::string fault = key_fault(keys, key, rules[i], where); !fault.empty()) {
                    return fault;
                }
            }
        }
    }
    return "";
}

std::string meaning_of(const documented_line& line) {
    const std::size_t colon = line.colon();
    std::string meaning = colon == std::string::npos ? "" : line.text.substr(colon + 2);
    if (meaning.ends_with('.')) {
        meaning.pop_back();
    }
    return meaning;
}

// All that the description knows such an answer to mean, joined.
std::string meanings(const documented_command& command, const std::optional<std::string>& reply) {
    std::vector<std::string> found;
    for (const documented_line& line : command.lines) {
        const bool is_it = reply ? line.word == "Replies" && !line.code.empty() &&
                                       (fits(line.code.front(), *reply) || fits(line.code.front() + "\n", *reply))
                                 : line.word.starts_with("No reply");
        const std::string meaning = is_it ? meaning_of(line) : "";
        if (!meaning.empty() && std::find(found.begin(), found.end(), meaning) == found.end()) {
            found.push_back(meaning);
        }
    }
    std::string text;
    for (const std::string& each : found) {
        text += (text.empty() ? "" : "; or: ") + each;
    }
    return text;
}

// What of the host the command depends on.
std::string where_to_look(const documented_command& command) {
    std::string text;
    const auto add = [&text](const char* verb, const documented_line& line) {
        text += (text.empty() ? "it " : ", ") + std::string(verb);
        for (const std::string& word : line.code) {
            text += ' ' + word;
        }
    };
    for (const documented_line& line : command.lines) {
        if (line.word == "Runs" || line.word == "Reads" || line.word == "Calls") {
            add(line.word == "Runs" ? "runs" : line.word == "Reads" ? "reads" : "calls", line);
        } else if (line.word == "May run") {
            add("may run", line);
        }
    }
    return (text.empty() ? "" : "; " + text) + "; the daemon's log is " + daemon_log_path();
}

} // namespace

bool says_failure(const documented_command* command, const std::string& reply) {
    Json::Value root;
    if ((command != nullptr && (reply == command->reply || reply == command->reply + "\n")) ||
        !json_parse(reply, &root) || !root.isObject()) {
        return false;
    }
    return root.isMember("error_msg") || is_failure(root["error_code"]) || is_failure(root["result"]);
}

std::string explain(const documented_command& command, const std::string& request,
                    const std::optional<std::string>& reply) {
    if (std::string fault = request_fault(command, request); !fault.empty()) {
        return fault + " (ksctl describe " + command.name + " lists its keys)";
    }
    const std::string meaning = meanings(command, reply);
    return meaning.empty() ? "" : meaning + where_to_look(command);
}

} // namespace ksctl
