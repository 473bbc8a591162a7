#include "exec_cli.h"

#include "argument_vector.h"
#include "json_helpers.h"
#include "runner.h"
#include "temp_file.h"

#include <json/value.h>

#include <new>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kArgumentLimit = 255; // characters of an argument; the path has no limit
constexpr std::size_t kOutputLimitBytes = 5120;

// Whether `request` holds a command: an array of at least the program, of members that have a text form.
bool has_command(const Json::Value& request) {
    if (!request.isObject() || !request["command"].isArray() || request["command"].empty()) {
        return false;
    }
    for (const Json::Value& element : request["command"]) {
        if (element.isArray() || element.isObject()) {
            return false;
        }
    }
    return true;
}

// The program's path, and the vector to run it with.
std::pair<std::string, argument_vector> read_command(const Json::Value& command) {
    const std::string path = command[0].asString();
    std::vector<std::string> entries = {base_name(path.c_str())};
    for (Json::ArrayIndex i = 1; i < command.size(); ++i) {
        entries.push_back(command[i].asString().substr(0, kArgumentLimit));
    }
    return {path, argument_vector(std::move(entries))};
}

} // namespace

int exec_cli(const std::string& input, std::string& output) {
    try {
        Json::Value request;
        if (!json_parse(input, &request) || !has_command(request)) {
            output = "Read command fail.";
            return -1;
        }
        const auto [path, argv] = read_command(request["command"]);
        const temp_file capture;
        // KEPT: what became of the program is not looked at; one that could not be run has printed nothing.
        (void)lyn_vexprod_corvo_exec_v(capture.path(), nullptr, nullptr, path.c_str(), argv.data());
        const std::string printed = capture.read_at_most(kOutputLimitBytes);
        output = printed.c_str(); // up to the first NUL
    } catch (const std::bad_alloc&) {
        output = "malloc fail.";
        return -2;
    }
    return 0;
}
