// Handlers that only query or poke the host.
#include "exec_cli.h"
#include "handler_call.h"
#include "handlers.h"
#include "host_config.h"
#include "host_paths.h"
#include "json_helpers.h"
#include "log.h"
#include "package_registry.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

namespace {

// The two self-tests: who answers, and for which service.
int reply_test(ks_io* io, const char* handler, const char* service) {
    handler_call call(handler, io);
    call.reply()["handler"] = handler;
    call.reply()["service"] = service;
    return call.send();
}

// The product-data getters: one field of the vital product data under the handler's own key.
int reply_vpd(const char* function, ks_io* io, const char* field, const char* key) {
    handler_call call(function, io);
    std::string value;
    if (call.finish(system_call_hwctl_vpdget(field, value))) {
        call.reply()[key] = value;
    }
    return call.send();
}

} // namespace

int hos_test_handler(ks_io* io, int /*fd*/) {
    return reply_test(io, "test_handler", kMainService);
}

int hos_test_sendmail_srv_handler(ks_io* io, int /*fd*/) {
    return reply_test(io, "hos_test_sendmail_srv_handler", kMailService);
}

// "exec_cli": runs the program that the request's "command" array names and returns what it printed. The program's exit
// status does not reach the reply.
int hos_exec_cli_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    call.reply()["handler"] = "exec_cli_handler";
    call.reply()["service"] = kMainService;
    std::string output;
    const int status = exec_cli(request_text(io), output); // parses the text itself
    call.reply()["error_code"] = status;
    call.reply()[status != 0 ? "error_msg" : "result"] = output;
    return call.send();
}

// "get_tvlounge_status": 0 when the control panel does not say.
int hos_get_cfg_tvLounge_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string value;
    long status = 0;
    if (ks_get_ini_info(kControlPanelConfig, "CP_APP", "tvLounge", value)) {
        status =
            std::clamp(std::strtol(value.c_str(), nullptr, 10), static_cast<long>(INT_MIN), static_cast<long>(INT_MAX));
    }
    call.reply()["error_code"] = 0;
    call.reply()["tvLounge_Status"] = static_cast<int>(status);
    return call.send();
}

int hos_system_call_vexpro_disable_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    if (!call.finish(run_control_script({"force_stop"}))) {
        // KEPT: "system_" twice, which is not this function's name; clients match on the text.
        call.fail("hos_system_system_call_vexpro_disable_handler fail");
    }
    return call.send();
}

int hos_system_call_share_folder_renew_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    call.finish(run_control_script({"share_folder_renew"}));
    return call.send();
}

int hos_get_vpd_productnamed_handler(ks_io* io, int /*fd*/) {
    return reply_vpd(__func__, io, "0:7", "vpd_productnamed");
}

int hos_get_vpd_eepkey_handler(ks_io* io, int /*fd*/) {
    return reply_vpd(__func__, io, "0:8", "vpd_eepkey");
}

int hos_get_vpd_channel_handler(ks_io* io, int /*fd*/) {
    return reply_vpd(__func__, io, "0:9", "vpd_channel");
}

// "is_generic_model": KEPT: an ordinary model answers "result" -1; clients read "is_generic".
int hos_is_generic_model_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    struct stat st = {};
    const bool generic = stat(kGenericModelMark, &st) == 0;
    if (generic) {
        dbg_printf2("[%s][%d] is generic.", __func__, __LINE__);
    } else {
        dbg_printf2("[%s][%d] normal.", __func__, __LINE__);
    }
    call.reply()["is_generic"] = generic ? 1 : 0;
    call.reply()["result"] = generic ? 0 : -1;
    return call.send();
}

int hos_get_platform_display_name_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string name;
    const bool found = ks_get_ini_info(kPlatformConfig, "MISC", "DISPLAY_NAME", name) != 0;
    if (call.finish(found ? 0 : -1)) {
        call.reply()["platform_display_name"] = name;
    }
    return call.send();
}

// "is_vxb_model": KEPT: this build never identifies as the appliance model.
int hos_system_is_VXB_model_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    dbg_printf2("[%s][%d] normal.", __func__, __LINE__);
    call.reply()["is_VXB_model"] = 0;
    call.reply()["result"] = 0;
    return call.send();
}
