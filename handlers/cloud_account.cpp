// The host's cloud account, and the host's identity as a cloud device. Each handler runs one tool of the host and hands
// on what it prints, unread.
//
// Secrets and tokens travel on the tools' command lines alone; nothing here writes them to the log.
#include "base64.h"
#include "cloud_call.h"
#include "handlers.h"
#include "host_config.h"
#include "host_paths.h"
#include "tool_run.h"

#include <cstdint>
#include <string>
#include <sys/wait.h>
#include <utility>
#include <vector>

namespace {

// A sign-in with the cloud. Only the three texts that exchanging a token takes are used here.
struct T_KSERVICE_VEXPROD_CLOUD_OAUTH {
    std::string client_id;
    std::string client_secret;
    std::string access_token;
    std::string refresh_token;
    std::string token_type;
    std::string user_id;
    std::string user_name;
    std::string redirect_uri;
    std::string state;
    std::int32_t expires_in{};
    std::string error;
    std::vector<std::string> scopes;
};

// The handlers without parameters that answer with "result_out" and "cli_ret".
int reply_fixed_tool(const char* function, ks_io* io, const char* path, std::vector<std::string> arguments,
                     handler_call::location where = handler_call::location::current()) {
    handler_call call(function, io);
    reply_cloud_tool(call, path, std::move(arguments), where);
    return call.send();
}

tool_run run_device_tool(std::vector<std::string> arguments, tool_errors errors = tool_errors::discarded) {
    return run_tool(kCloudDeviceTool, first_slash_argv(kCloudDeviceTool, std::move(arguments)), errors);
}

// Whether the board was made for the cloud, which decides where its serial number is kept. Only the first line that the
// tool writes counts; one that fails writes none, and the board is an ordinary one.
bool is_cloud_board() {
    const tool_run probe = run_tool(kCloudTool, first_slash_argv(kCloudTool, {"-d"}));
    const std::string text = probe.output.read_all();
    return text.substr(0, text.find('\n')) == "VHOS_CLD";
}

} // namespace

int hos_get_hwsn_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    const char* serial_tool = is_cloud_board() ? kBoardUidTool : kBoardSerialTool;
    tool_run run = run_tool(serial_tool, first_slash_argv(serial_tool, {}));
    const std::string serial = take_output(run);
    if (call.finish(run.status)) {
        call.reply()["result_out"] = base64_text(serial); // no "cli_ret" here
    }
    return call.send();
}

int hos_system_call_cloud_get_device_list_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    tool_run run = run_device_tool({"get_device_list", "-d", "TALKROOM_IOS"});
    const std::string devices = take_output(run);
    if (call.finish(run.status)) {
        call.reply()["device_list"] = devices; // the text itself, where all others are in Base64
    }
    return call.send();
}

int hos_system_call_cloud_get_device_info_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    tool_run run = run_device_tool({"get_device_info"});
    const std::string info = take_output(run);
    if (call.finish(run.status)) {
        call.reply()["device_info"] = base64_text(info);
    }
    return call.send();
}

int hos_system_call_cloud_get_device_status_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    // KEPT: three departures from the others. The status is what both streams say, it is sent although the tool failed,
    // and "result" tells how: the exit status, or the raw wait status of a tool that did not exit.
    tool_run run = run_device_tool({"get_device_status"}, tool_errors::with_output);
    const std::string status_text = take_output(run);
    call.finish(run.status);
    call.reply()["result"] = WIFEXITED(run.status) ? WEXITSTATUS(run.status) : run.status;
    call.reply()["device_status"] = base64_text(status_text);
    return call.send();
}

int hos_system_call_cloud_get_xid_service_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string section, field;
    if (take_cloud_keys(call, {{"section_name", &section}, {"field_name", &field}})) {
        reply_cloud_tool(call, kConfigReader, {section, field, "-f", kCloudAccountConfig});
    }
    return call.send();
}

int hos_system_call_cloud_get_user_token_handler(ks_io* io, int /*fd*/) {
    return reply_fixed_tool(__func__, io, kCloudCli, {"-t"});
}

int hos_system_call_cloud_get_host_endpoint_handler(ks_io* io, int /*fd*/) {
    return reply_fixed_tool(__func__, io, kCloudHostTool, {"-n", "n2_api"});
}

int hos_system_call_cloud_get_host_site_handler(ks_io* io, int /*fd*/) {
    return reply_fixed_tool(__func__, io, kCloudHostTool, {"-s"});
}

int hos_system_call_cloud_get_access_token_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    T_KSERVICE_VEXPROD_CLOUD_OAUTH oauth;
    if (take_cloud_keys(call, {{"client_id", &oauth.client_id},
                               {"client_secret", &oauth.client_secret},
                               {"access_token", &oauth.access_token}})) {
        reply_cloud_tool(call, kCloudAuthTool,
                         {"signin", "-t", "exchange_token", "-a", oauth.access_token, "-i", oauth.client_id, "-s",
                          oauth.client_secret, "-o", "json"});
    }
    return call.send();
}
