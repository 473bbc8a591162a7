// Programs that belong to an application package rather than to the host: the package centre's installation script and
// this package's cloud agent.
#include "argument_vector.h"
#include "base64.h"
#include "environment.h"
#include "handler_call.h"
#include "handlers.h"
#include "host_config.h"
#include "host_paths.h"
#include "json_helpers.h"
#include "log.h"
#include "package_registry.h"
#include "stream_request.h"
#include "tool_run.h"

#include <cstddef>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

struct install_request {
    std::string sys_install_folder;
    std::string app_file_path;
};

// The member as text, "" when it is not there.
// @return False for an array or an object, which cannot become text; numbers and booleans can.
bool take_text(const Json::Value& request, const char* key, std::string* ret_text) {
    const Json::Value member = request.get(key, "");
    if (!member.isConvertibleTo(Json::stringValue)) {
        return false;
    }
    *ret_text = member.asString();
    return true;
}

// Takes the request's members. @return False with the rejection in the reply.
bool take_install_request(handler_call& call, const ks_io* io, install_request* ret_request) {
    Json::Value request;
    if (!parse_stream_request(call, io, &request)) {
        return false;
    }
    std::string install_volume; // may be in the request, and is not used
    if (!take_text(request, "sys_install_folder", &ret_request->sys_install_folder) ||
        !take_text(request, "app_file_path", &ret_request->app_file_path) ||
        !take_text(request, "install_volume", &install_volume)) {
        refuse_stream_request(call, "not a text"); // where other commands end without a reply
        return false;
    }
    return true;
}

// The arguments of an agent request. @return False if they are not a list of strings; a missing list is an empty one.
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

} // namespace

// "install_app": has the package centre install a package file.
int hos_install_app_handler(ks_io* io, int /*fd*/) {
    constexpr std::size_t kMostCharacters = 1023;
    handler_call call(__func__, io);
    install_request request;
    if (!take_install_request(call, io, &request)) {
        return call.send();
    }
    // KEPT: for the daemon itself, and for good. The script does not get it: its environment is empty.
    (void)environment_set("ZPKGD", "ALLOW");

    const std::string folder = request.sys_install_folder.c_str(); // ends at its first NUL
    const std::string script = (folder + '/' + kInstallScript).substr(0, kMostCharacters);
    const std::vector<std::string> argv = {base_name(script.c_str()), "install", request.app_file_path};
    trace_arguments(__func__, argv);
    tool_run run = run_tool(script, argv);
    const std::string output = run.output.read_all();
    if (run.status != 0) {
        dbg_printf2("[%s][%d] exec %s failed, ret_out=[%s]", __func__, __LINE__, script.c_str(), output.c_str());
        (void)run.output.release(); // KEPT: the file stays for inspection, and the caller gets no reply
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
    const std::string path = installed_file(kPackage, kAgentCli);
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0) { // before the request is looked at
        dbg_printf2("[%s][%d] vex_agent_cli_path does not exist: %s", __func__, __LINE__, path.c_str());
        call.fail("vex_agent_cli_path does not exist", -4);
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
