// Programs that belong to an application package rather than to the host: the package centre's installation script and
// this package's cloud agent.
#include "argument_vector.h"
#include "environment.h"
#include "handler_call.h"
#include "handlers.h"
#include "host_config.h"
#include "host_paths.h"
#include "json_helpers.h"
#include "log.h"
#include "tool_run.h"

#include <cstddef>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

// `folder` and a path below it, as a C text of at most `most_characters`.
std::string path_below(const std::string& folder, const char* below, std::size_t most_characters) {
    return (folder.c_str() + std::string(below)).substr(0, most_characters);
}

struct install_request {
    std::string sys_install_folder;
    std::string app_file_path;
};

// The member as text, "" when it is not there.
// @return False for an array or an object, which are no text; numbers and booleans are.
bool take_text(const Json::Value& request, const char* key, std::string* ret_text) {
    const Json::Value member = request.get(key, "");
    if (!member.isConvertibleTo(Json::stringValue)) {
        return false;
    }
    *ret_text = member.asString();
    return true;
}

// @param ret_error  What the log says when the request is refused.
bool read_install_request(const std::string& text, install_request* ret_request, std::string* ret_error) {
    Json::Value request;
    if (!json_parse_stream(text, &request, ret_error)) {
        return false;
    }
    if (!request.isObject()) {
        *ret_error = "not an object";
        return false;
    }
    std::string install_volume; // may be in the request, and is not used
    if (!take_text(request, "sys_install_folder", &ret_request->sys_install_folder) ||
        !take_text(request, "app_file_path", &ret_request->app_file_path) ||
        !take_text(request, "install_volume", &install_volume)) {
        *ret_error = "not a text";
        return false;
    }
    return true;
}

// The arguments out of an agent request. @return False when they are no list of texts; an absent list is an empty one.
bool read_agent_request(const std::string& text, std::vector<std::string>* ret_arguments) {
    Json::Value request;
    if (!json_parse(text, &request) || !request.isObject()) {
        return false;
    }
    const Json::Value options = request.get("opt", Json::arrayValue);
    if (!options.isArray() && !options.isNull()) {
        return false;
    }
    for (const Json::Value& option : options) {
        if (!option.isConvertibleTo(Json::stringValue)) {
            return false;
        }
        ret_arguments->push_back(option.asString());
    }
    return true;
}

// @return The agent's tool; empty when the registry does not know where the package is.
std::string agent_cli_path() {
    constexpr std::size_t kMostCharacters = 511;
    std::string install_path;
    const bool found = ks_get_ini_info(kPackageRegistry, kPackage, kInstallPathField, install_path) != 0;
    return found ? path_below(install_path, kAgentCli, kMostCharacters) : std::string();
}

} // namespace

// "install_app": has the package centre install a package file.
int hos_install_app_handler(ks_io* io, int /*fd*/) {
    constexpr std::size_t kMostCharacters = 1023;
    handler_call call(__func__, io);
    install_request request;
    std::string error;
    if (!read_install_request(request_text(io), &request, &error)) {
        dbg_printf2("[%s][%d] parse strInputArg failed, error=[%s]", __func__, __LINE__, error.c_str());
        call.reject("input error");
        return call.send();
    }
    // KEPT: for the daemon itself, and for good. The script does not get it: its environment is empty.
    (void)environment_set("ZPKGD", "ALLOW");

    const std::string script = path_below(request.sys_install_folder, kInstallScript, kMostCharacters);
    const std::vector<std::string> argv = {base_name(script.c_str()), "install", request.app_file_path};
    int index = 0;
    for (const std::string& argument : argv) {
        dbg_printf2("[%s][%d] argv[%d] = [%s]", __func__, __LINE__, index++, argument.c_str());
    }
    dbg_printf2("[%s][%d] argv[%d] = [%s]", __func__, __LINE__, index, "(null)"); // the vector's end is shown as well

    tool_run run = run_tool(script, argv);
    const std::string output = run.output.read_all();
    if (run.status != 0) {
        dbg_printf2("[%s][%d] exec %s failed, ret_out=[%s]", __func__, __LINE__, script.c_str(), output.c_str());
        (void)run.output.release(); // KEPT: the file stays for whoever looks into it, and the caller gets no reply
        return 0;
    }
    dbg_printf2("[%s][%d] exec %s succ, ret_out=[%s]", __func__, __LINE__, script.c_str(), output.c_str());
    call.finish(run.status);
    call.reply()["result_out"] = base64_text(output);
    call.reply()["cli_ret"] = 0;
    (void)run.output.remove();
    ks_reply_json(json_write_stream(call.reply()), io); // KEPT: indented, where all other replies are on one line
    return 0;
}

// "vex_agent_cli": passes a list of arguments to the cloud agent's own tool.
int vex_agent_cli_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    const std::string path = agent_cli_path();
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0) { // before the request is looked at
        dbg_printf2("[%s][%d] vex_agent_cli_path does not exist: %s", __func__, __LINE__, path.c_str());
        call.fail("vex_agent_cli_path does not exist");
        call.reply()["result"] = -4;
        return call.send();
    }
    std::vector<std::string> arguments;
    if (!read_agent_request(request_text(io), &arguments)) {
        dbg_printf2("[%s][%d] ks_io input fail.", __func__, __LINE__);
        call.fail("input error"); // KEPT: in "result", where the template has "error_code"
        return call.send();
    }
    std::string shown;
    for (const std::string& argument : arguments) {
        shown += argument + ",";
    }
    dbg_printf2("[%s] args=[%s], ", __func__, shown.c_str());

    tool_run run = run_tool(path, first_slash_argv(path, std::move(arguments)));
    call.reply()["cli_ret"] = run.status; // KEPT: the only sign of a tool that failed
    call.reply()["result"] = 0;
    const std::string output = take_output(run);
    call.reply()["result_out"] = base64_text(output);
    dbg_printf2("[%s] ret=[%d][%s]", __func__, run.status, output.c_str());
    return call.send();
}
