// Publishes and withdraws reverse-proxy rules: one file per rule in the proxy's folder, then a start or a reload.
//
// Departs from the template: members have defaults, and an unknown action and a proxy that fails end without a reply,
// as does a member that cannot be converted (see stream_request.h).
#include "argument_vector.h"
#include "base64.h"
#include "fresh_file.h"
#include "handlers.h"
#include "host_paths.h"
#include "log.h"
#include "reverse_proxy_rule.h"
#include "stream_request.h"
#include "tool_run.h"

#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// The file of the rule `guid`; empty for an identity that names no file of the rules' folder, which then fails as any
// other path does that cannot be opened. Callers choose identities freely, and the daemon is root.
std::string rule_path(const std::string& guid) {
    const bool names_a_file = guid.find('/') == std::string::npos && guid.find('\0') == std::string::npos;
    return names_a_file ? kProxyRules + guid + ".conf" : "";
}

// Replaces the rule's file. Failures are not reported: the proxy then goes on without the rule.
void write_rule(const std::string& guid, const std::string& text) {
    const unique_fd file = create_anew(rule_path(guid).c_str(), 0644);
    [[maybe_unused]] const ssize_t written = ::write(file.get(), text.data(), text.size());
}

// Calls `act` with each rule of "rule_list" that has an identity, in order.
template <class Act>
void for_each_rule(const handler_call& call, const Json::Value& request, Act act) {
    const Json::Value rules = request.get("rule_list", Json::Value(Json::arrayValue));
    for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
        const std::string guid = rules[i].get("GUID", "").asString();
        if (guid.empty()) {
            dbg_printf2("[%s][%d] get jRuleList[%d] strGUID failed", call.function(), __LINE__, static_cast<int>(i));
            continue;
        }
        act(guid, rules[i]);
    }
}

void add_rules(const handler_call& call, const Json::Value& request) {
    const tls_settings tls = host_tls_settings();
    for_each_rule(call, request, [&](const std::string& guid, const Json::Value& rule) {
        write_rule(guid, proxy_rule_text(take_proxy_rule(rule), tls));
    });
}

void delete_rules(const handler_call& call, const Json::Value& request) {
    for_each_rule(call, request, [](const std::string& guid, const Json::Value& /*rule*/) {
        (void)::unlink(rule_path(guid).c_str()); // one that is not there is as good as deleted
    });
}

struct proxy_operation {
    const char* program;
    std::vector<std::string> argv;
};

// What makes the proxy take the rules up: a start when rules were added and it does not run, else a reload, which is
// tried after every deletion.
proxy_operation choose_operation(const handler_call& call, const std::string& action) {
    struct stat status = {};
    if (action == "add" && ::stat(kProxyPidFile, &status) != 0) {
        // One argument: the manager takes the whole command line, in quotes.
        const std::string proxy_cmd = std::string("\"") + kProxyProgram + " -k start -f " + kProxyConfig + "\"";
        dbg_printf2("[%s][%d] proxy_cmd = %s", call.function(), __LINE__, proxy_cmd.c_str());
        return {kServiceKeeper, {base_name(kServiceKeeper), kProxyService, "start", proxy_cmd}};
    }
    return {kProxyProgram, {base_name(kProxyProgram), "-k", "graceful", "-f", kProxyConfig}};
}

} // namespace

int hos_reverse_proxy_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    Json::Value request;
    if (!parse_stream_request(call, io, &request)) {
        return call.send();
    }
    const std::string action = request.get("action", "delete").asString();
    if (action == "add") {
        add_rules(call, request);
    } else if (action == "delete") {
        delete_rules(call, request);
    } else {
        dbg_printf2("[%s][%d] unknown action = %s", __func__, __LINE__, action.c_str());
        return 0; // without a reply
    }

    const proxy_operation operation = choose_operation(call, action);
    trace_arguments(__func__, operation.argv, " ");
    tool_run run = run_tool(operation.program, operation.argv);
    if (run.status != 0) {
        dbg_printf2("[%s][%d] exec %s failed, ret=[%d]", __func__, __LINE__, operation.program, run.status);
        (void)run.output.release(); // what the program said stays for inspection
        return 0;                   // without a reply
    }
    const std::string output = run.output.read_all();
    dbg_printf2("[%s][%d] exec %s succ, ret_out=[%s]", __func__, __LINE__, operation.program, output.c_str());
    call.reply()["result_out"] = base64_text(output);
    call.reply()["cli_ret"] = run.output.remove(); // KEPT: the removal's status, not the program's
    call.reply()["result"] = 0;
    return call.send();
}
