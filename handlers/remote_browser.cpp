// Creates, deletes and queries remote-browser containers through the host's container tool.
//
// Departs from the template: members have defaults, an empty rule list has a code of its own, and an unknown action and
// a tool that fails end without a reply, as does a member that cannot be converted (see stream_request.h).
#include "argument_vector.h"
#include "base64.h"
#include "handlers.h"
#include "host_paths.h"
#include "log.h"
#include "stream_request.h"
#include "tool_run.h"

#include <cstdint>
#include <string>
#include <vector>

namespace {

// "des_port": 0 when missing. The library would read null as 0 and a boolean as 0 or 1 as well.
std::int32_t take_port(const Json::Value& rule) {
    const Json::Value value = rule.get("des_port", 0);
    if (!value.isNumeric()) {
        throw Json::LogicError("Value of des_port is not convertible to Int.");
    }
    return value.asInt();
}

// What the tool is told.
struct container_arguments {
    std::string token;
    std::string id;
    std::string page;
    std::string browser;
};

container_arguments take_container_arguments(const Json::Value& rule, const std::string& auth_token) {
    container_arguments taken;
    taken.token = "token=" + auth_token;
    taken.id = "id=" + rule.get("wk_id", "").asString();
    taken.page = "open_url=" + rule.get("des_protocol", "http").asString();
    taken.page += "://" + rule.get("host_name", "").asString();
    taken.page += ':' + std::to_string(take_port(rule));
    taken.browser = "type=" + rule.get("browser_type", "chrome").asString();
    return taken;
}

// The tool's whole vector for `action`; empty for an unknown one.
std::vector<std::string> tool_vector(const std::string& action, const container_arguments& container) {
    const std::string name = base_name(kContainerTool);
    if (action == "add") {
        return {name,      "web-kiosk.container.create", container.token,  container.page,
                "ttl=300", "resolution=1920x1080",       container.browser};
    }
    if (action == "delete") {
        return {name, "web-kiosk.container.delete", container.token, container.id};
    }
    if (action == "get_status") {
        return {name, "web-kiosk.container", container.token, container.id};
    }
    return {};
}

// Runs the tool. @return False when it failed: the request then ends without a reply.
bool run_container_tool(handler_call& call, const std::vector<std::string>& argv) {
    trace_arguments(call.function(), argv);
    tool_run run = run_tool(kContainerTool, argv);
    if (run.status != 0) {
        dbg_printf2("[%s][%d] exec %s failed, ret=[%d]", call.function(), __LINE__, kContainerTool, run.status);
        (void)run.output.release(); // what the tool said stays for inspection
        return false;
    }
    const std::string output = run.output.read_all();
    dbg_printf2("[%s][%d] exec %s succ, ret_out=[%s]", call.function(), __LINE__, kContainerTool, output.c_str());
    call.reply()["result_out"] = base64_text(output);
    call.reply()["cli_ret"] = 0;
    call.reply()["result"] = 0;
    return true; // the output's file goes with `run`, before the reply
}

} // namespace

// "web_kiosk"
int hos_web_kiosk_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    Json::Value request;
    if (!parse_stream_request(call, io, &request)) {
        return call.send();
    }
    const std::string action = request.get("action", "remove").asString(); // KEPT: the default is no known action
    const Json::Value rules = request.get("rule_list", Json::Value(Json::arrayValue));
    const std::string auth_token = request.get("auth_token", "").asString();
    const Json::ArrayIndex rule_count = rules.size(); // of anything but a list or an object as well: 0
    if (rule_count == 0) {                            // before the action: a deletion needs a rule as well
        dbg_printf2("[%s][%d] jRuleList is empty", __func__, __LINE__);
        call.reject("jRuleList is empty", -5);
        return call.send();
    }
    const container_arguments container = take_container_arguments(rules[Json::ArrayIndex{0}], auth_token);
    const std::vector<std::string> argv = tool_vector(action, container);
    if (argv.empty()) {
        dbg_printf2("[%s][%d] unknown action = %s", __func__, __LINE__, action.c_str());
        return 0; // without a reply
    }
    return run_container_tool(call, argv) ? call.send() : 0;
}
