// The cloud's messaging tunnel: registrations of the package's applications, and the tunnel's address.
#include "cloud_call.h"
#include "handlers.h"
#include "host_paths.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

// A request. Every command has to carry all five, though each uses its own only.
struct tunnel_request {
    std::string command;
    std::string mode;
    std::string package_name;
    std::string callback_path;
    std::string reg_id;
};

// @return What the tool shall do; nothing for a command that it does not know.
std::optional<std::vector<std::string>> tunnel_arguments(const tunnel_request& request) {
    std::vector<std::string> arguments = {request.command};
    if (request.command == "register_ncm") {
        arguments.insert(arguments.end(),
                         {"-m", request.mode, "-p", request.package_name, "-c", request.callback_path});
    } else if (request.command == "unregister_ncm") {
        arguments.insert(arguments.end(), {"-r", request.reg_id});
    } else if (request.command != "get_url") {
        return std::nullopt;
    }
    return arguments;
}

} // namespace

int hos_system_call_cloud_ncm_tunnel_agent_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    tunnel_request request;
    if (take_cloud_keys(call, {{"command", &request.command},
                               {"mode", &request.mode},
                               {"package_name", &request.package_name},
                               {"callback_path", &request.callback_path},
                               {"reg_id", &request.reg_id}})) {
        if (auto arguments = tunnel_arguments(request)) {
            reply_cloud_tool(call, kCloudTunnelTool, std::move(*arguments));
        } else {
            call.reject("not support command", -6); // tells an unknown command from a bad request
        }
    }
    return call.send();
}
