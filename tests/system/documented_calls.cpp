#include "documented_calls.h"

#include "daemon_process.h"
#include "host_tool.h"
#include "privileges.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <sys/xattr.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

std::string with_newlines(std::string text) {
    for (const auto& [escape, character] : {std::pair("\\n", "\n"), std::pair("\\t", "\t")}) {
        for (std::size_t at = text.find(escape); at != std::string::npos; at = text.find(escape, at + 1)) {
            text.replace(at, 2, character);
        }
    }
    return text;
}

// What "Given: file `PATH` ends with `TEXT`" and its like ask for; `text` is what follows the path.
void provide(const documented_line& given) {
    std::string rest = given.text;
    const std::size_t begin = rest.find('`');
    const std::string value =
        begin == std::string::npos ? "" : with_newlines(rest.substr(begin + 1, rest.rfind('`') - begin - 1));
    const std::string& path = given.code.at(0);
    if (given.word == "Given: tool") {
        host_tool(path).answers(value);
    } else if (given.word == "Given: folder") {
        fs::create_directories(path);
    } else if (given.word == "Given: file") {
        const std::string old = read_file(path);
        write_file(path, old.ends_with(value) ? old : old + value);
    } else { // "attribute `NAME` of `PATH` is `VALUE`"
        const std::size_t second = rest.find('`', begin + 1);
        const std::string file = rest.substr(begin + 1, second - begin - 1);
        const std::size_t third = rest.find('`', second + 1) + 1;
        const std::string attribute = rest.substr(third, rest.rfind('`') - third);
        write_file(file, "");
        ASSERT_EQ(setxattr(file.c_str(), path.c_str(), attribute.data(), attribute.size(), 0), 0);
    }
}

} // namespace

answer send(const documented_command& command, const std::string& request) {
    std::string reply;
    const unsigned code = call_service(command.service.c_str(), command.name.c_str(), request, &reply, 30);
    EXPECT_TRUE(code == KS_OK || code == KS_DISCONNECTED) << code;
    return code == KS_OK ? answer(reply) : std::nullopt;
}

std::string example_reply(const documented_command& command) {
    const bool indented = command.reply.find('\n') != std::string::npos;
    return command.reply + (indented ? "" : "\n");
}

bool is_documented(const documented_command& command, const answer& got) {
    if (!got) {
        return !command.lines_of("No reply").empty() || !command.lines_of("No reply to").empty();
    }
    const auto replies = command.lines_of("Replies");
    return std::any_of(replies.begin(), replies.end(),
                       [&](const documented_line& line) { return fits(line.code.at(0) + "\n", *got); });
}

std::string shown(const answer& got) {
    return got ? "reply " + *got : "no reply";
}

Json::Value parsed(const std::string& text) {
    Json::Value value;
    std::istringstream stream(text);
    stream >> value;
    return value;
}

std::string written(const Json::Value& value) {
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    return Json::writeString(compact, value);
}

std::string leave_out_unpreparable(std::vector<documented_command>& commands) {
    std::string left_out;
    std::erase_if(commands, [&](const documented_command& command) {
        const bool unpreparable = !may_set_trusted_attributes() && !command.lines_of("Given: attribute").empty();
        left_out += unpreparable
                        ? command.name + " needs a trusted attribute, which takes the rights of the machine's root"
                        : "";
        return unpreparable;
    });
    return left_out;
}

void provide_all(const documented_command& command) {
    for (const char* word : {"Given: file", "Given: tool", "Given: attribute", "Given: folder"}) {
        for (const documented_line& line : command.lines_of(word)) {
            provide(line);
        }
    }
}

std::vector<std::string> requests_without(const documented_command& command, const documented_key& key) {
    Json::Value request = parsed(command.request);
    request.removeMember(key.name);
    std::vector<std::string> requests = {written(request)};
    request[key.name] = key.type == "string" ? Json::Value(1) : Json::Value("1");
    requests.push_back(written(request));
    return requests;
}
