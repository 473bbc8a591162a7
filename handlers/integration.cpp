// What the package asks of its host's shares, hardware, notifications and a neighbouring package.
#include "base64.h"
#include "handler_call.h"
#include "handlers.h"
#include "host_config.h"
#include "host_paths.h"
#include "json_helpers.h"
#include "log.h"
#include "package_registry.h"
#include "runner.h"
#include "scoped.h"
#include "text.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <strings.h>
#include <sys/stat.h>

int hos_system_call_no_del_share_add_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string share;
    if (call.take({{"share_name", &share}})) {
        call.finish(
            lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kShareGuard, "add", share.c_str(), kPackage, nullptr));
    }
    return call.send();
}

// Names no owner, unlike the add form.
int hos_system_call_no_del_share_remove_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string share;
    if (call.take({{"share_name", &share}})) {
        call.finish(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kShareGuard, "remove", share.c_str(), nullptr));
    }
    return call.send();
}

int hos_system_call_findly_list_add_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string name;
    std::string path;
    if (call.take({{"exclude_name", &name}, {"exclude_path", &path}})) {
        call.finish(run_control_script({"evbus_findly_list_add", name, path}));
    }
    return call.send();
}

// "get_vpd_ext_area": the tool's exit status is not looked at; one that prints nothing gives an empty area.
int hos_get_vpd_ext_area_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::int32_t offset{};
    std::int32_t length{};
    if (!call.take({{"offest", &offset}, {"length", &length}})) { // KEPT: "offest" is the protocol's spelling
        return call.send();
    }
    std::array<char, 32> selector{};
    (void)std::snprintf(selector.data(), selector.size(), "offset=%d,length=%d", offset, length);
    dbg_printf2("[%s][%d] %s --vpd_get_ext_area  %s", __func__, __LINE__, kHardwareTool, selector.data());
    unique_pipe tool(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", kHardwareTool, "--vpd_get_ext_area",
                                                selector.data(), nullptr));
    if (!tool) {
        dbg_printf2("[%s][%d] get vpd area failed, ret=%d", __func__, __LINE__, -2);
        call.fail();
        return call.send();
    }
    std::string output = read_output(tool.get());
    tool.reset();
    dbg_printf2("[%s][%d] str_output=%s", __func__, __LINE__, output.c_str());
    trim_front_and_end(output, " \n");
    call.finish(0);
    call.reply()["vpd_ext_area"] = output;
    return call.send();
}

int hos_system_vxb_smb_setfolder_priv_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string share;
    std::string command;
    std::string privilege;
    if (call.take({{"share_name", &share}, {"command", &command}, {"priv_type", &privilege}})) {
        call.finish(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kSharePermissionScript, command.c_str(),
                                           share.c_str(), privilege.c_str(), nullptr));
    }
    return call.send();
}

// "system_call_nc_notify": the only command that goes through a shell. The decoded text is the wrapper's arguments as
// the shell reads them; quoting is the caller's.
int hos_system_call_nc_notify_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string encoded;
    if (call.take({{"nc_notify", &encoded}})) {
        const std::string wrapper = installed_file(kPackage, kNotifyWrapper);
        std::string parameter;
        base64_decode(encoded, parameter);
        // KEPT: without an install path the wrapper is empty, and the decoded text runs as a command by itself.
        std::array<char, 4096> command_line{};
        (void)std::snprintf(command_line.data(), command_line.size(), "%s %s", wrapper.c_str(), parameter.c_str());
        call.finish(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kShell, "-c", command_line.data(), nullptr));
    }
    return call.send();
}

// "system_get_tiermount_cloud_usage": the attribute's bytes as they are, encoded. No output is the failure, whatever
// the reader's exit status.
int hos_system_get_tiermount_cloud_usage_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string full_path;
    if (call.take({{"full_path", &full_path}})) {
        std::string usage;
        if (const unique_pipe tool(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", kAttributeReader,
                                                              "--only-values", "--absolute-names", "-n",
                                                              "trusted.tm.cloud_usage", full_path.c_str(), nullptr));
            tool) {
            usage = base64_text(read_output(tool.get()));
        }
        if (call.finish(usage.empty() ? -1 : 0)) {
            call.reply()["size_info"] = usage;
        }
    }
    return call.send();
}

// "notify_return": only "cmd" 3 is served.
int hos_return_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::int32_t cmd{};
    std::int32_t type{};
    std::int32_t acy{};
    if (call.take({{"cmd", &cmd}, {"type", &type}, {"acy", &acy}})) {
        int status = -1;
        if (cmd == 3) {
            const std::string script = installed_file(kPackage, kNotifyScript);
            if (!script.empty()) {
                status = lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, script.c_str(), "NOTIFY_CMD",
                                                std::to_string(type).c_str(), std::to_string(acy).c_str(), nullptr);
            }
        }
        call.finish(status);
    }
    return call.send();
}

namespace {

// What the reply of "cmv_cli" always tells, also to a request that was rejected.
struct viewer_answer {
    bool failed = true;
    std::string output;
    int cli_ret = -1;
    bool installed = false;
    bool enabled = false;
};

// Takes "cmd". @return False with the rejection in the reply. Departs from the template: the trace shows the request.
bool take_viewer_command(handler_call& call, const ks_io* io, std::string* ret_command) {
    const std::string text = request_text(io);
    Json::Value request;
    if (!json_parse(text, &request)) {
        dbg_printf2("[%s][%d] ks_io input fail. [%s]", call.function(), __LINE__, text.c_str());
        call.reject("input error");
        return false;
    }
    bool failed = false;
    parser_param_from_json_str(request, "cmd", ret_command, "string", &failed);
    if (failed) {
        call.reject("paser fail");
    }
    return !failed;
}

bool viewer_is_enabled() {
    std::string value;
    return ks_get_ini_info(kPackageRegistry, kViewerPackage, "Enable", value) != 0 &&
           ::strcasecmp(value.c_str(), "TRUE") == 0;
}

std::string viewer_missing_text(const std::string& path, int error) {
    // KEPT: 4011 is part of the text, wherever this line stands.
    return "[hos_cmv_cli_handler][4011] cmv_cli_path=[" + path + "] doesnt exist. errno=[" + std::to_string(error) +
           "]";
}

// Runs the viewer's tool, if the viewer is installed. One that is not is an answer, no failure.
void run_viewer_tool(handler_call& call, const std::string& command, viewer_answer* answer) {
    std::string path = installed_file(kViewerPackage, kViewerTool);
    if (path.empty()) { // KEPT: the tool is then looked for in the root folder, and the answer names that path
        path = std::string("/") + kViewerTool;
    }
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        answer->output = viewer_missing_text(path, errno);
        answer->failed = false;
        return;
    }
    answer->installed = true;
    unique_pipe tool(
        lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", path.c_str(), command.c_str(), nullptr));
    if (!tool) {
        call.reject("popen failed, path=[" + path + "], errno=[" + std::to_string(errno) + "].", -4);
        return;
    }
    answer->output = read_output(tool.get());
    answer->cli_ret = lyn_vexprod_corvo_pclose(tool.release());
    answer->failed = false;
}

} // namespace

// "cmv_cli": asks the media viewer's own tool. Every reply, a rejection too, has the four status keys and the output.
int hos_cmv_cli_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    viewer_answer answer;
    std::string command;
    if (take_viewer_command(call, io, &command)) {
        answer.enabled = viewer_is_enabled();
        run_viewer_tool(call, command, &answer);
    }
    call.reply()["result_out"] = base64_text(answer.output);
    call.reply()["cli_ret"] = answer.cli_ret;
    call.reply()["is_installed"] = answer.installed ? 1 : 0;
    call.reply()["is_enabled"] = answer.enabled ? 1 : 0;
    call.reply()["result"] = answer.failed ? -1 : 0;
    return call.send();
}
