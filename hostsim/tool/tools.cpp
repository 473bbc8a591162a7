// Which tools the host has. A new one is one line here; `succeed` is the job of a tool that only has to be called.

#include "tool.h"

#include <array>
#include <filesystem>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// clang-format off
constexpr std::array kTools = std::to_array<tool>({
    {"/sbin/cfgread",                          read_config},
    {"/sbin/hwctl",                            control_hardware},
    {"/share/VexHubServer/VexHubServer.sh",    succeed},
    {"/sbin/zcli",                             log_in},
    {"/usr/local/bin/nimbo_auth_tool",         sign_in_to_cloud},
    {"/usr/local/bin/nimbo_device_tool",       describe_cloud_devices},
    {"/usr/local/bin/nimbo_tunnel_agent_tool", drive_cloud_tunnel},
    {"/usr/bin/nimbo_cli",                     print_user_token},
    {"/usr/sbin/nimbo_tool",                   print_board_kind},
    {"/usr/sbin/get_nimbo_host",               print_cloud_host},
    {"/sbin/board_uid",                        print_board_number},
    {"/sbin/board_serial",                     print_board_number},
    {"/script/operate_zpkgcenter_app.sh",      succeed},
    {"/share/ZpkgCenter/script/operate_zpkgcenter_app.sh",                   succeed},
    {"/share/VexHubServer/ext_service/ExtVexCloudAgent/vex_agent_cli",       succeed},

    {"/usr/sbin/sendmail",                     send_mail},

    {"/sbin/no_del_share",                     guard_shares},
    {"/etc/init.d/vex_smb_update.sh",          succeed},
    {"/share/VexHubServer/script/nc_wrapper.sh", succeed},
    {"/share/VexHubServer/vexpro_notify.sh",   succeed},
    {"/share/CayinMediaViewer/bin/cfgread",    succeed},

    {"/usr/local/bin/zanalytic_tool",          succeed},
    {"/sbin/log_tool",                         log_event},
    {"/sbin/conn_log_tool",                    log_connection},

    {"/sbin/svc_keeper",                       keep_service},
    {"/usr/sbin/reverseproxy_vexsurveillance", run_web_server},
    {"/usr/sbin/vsh",                          browse_remotely},
    {"/usr/local/apache/bin/apache_proxy",     run_web_server},
    {"/etc/init.d/stunnel.sh",                 succeed},
});
// clang-format on

// The path with the links in its folder resolved: on many systems /sbin leads to /usr/sbin.
fs::path real_path(const fs::path& path) {
    std::error_code missing;
    const fs::path folder = fs::canonical(path.parent_path(), missing);
    return missing ? path : folder / path.filename();
}

} // namespace

std::span<const tool> all_tools() {
    return kTools;
}

const tool* running_tool() {
    std::error_code unreadable;
    const fs::path self = fs::read_symlink("/proc/self/exe", unreadable);
    for (const tool& candidate : kTools) {
        if (self.filename() == fs::path(candidate.path).filename() && self == real_path(candidate.path)) {
            return &candidate;
        }
    }
    if (unreadable || self.filename() == "hosttool") {
        return nullptr;
    }
    static const std::string covered = self.string();
    static const tool cover = {covered.c_str(), succeed};
    return &cover;
}

// Succeeds quietly.
int succeed(const arguments& /*args*/) {
    return 0;
}
