#include "command_table.h"

#include "handlers.h"

namespace {

// Handlers are named hos_<command>_handler; three names differ, and stay so: get_tvlounge_status, is_vxb_model and
// notify_return run handlers of other names, and vex_agent_cli's lacks the prefix.
// clang-format off
constexpr command_entry handler[] = {
    {"test",                            hos_test_handler},
    {"exec_cli",                        hos_exec_cli_handler},
    {"get_tvlounge_status",             hos_get_cfg_tvLounge_handler},
    {"system_call_vexpro_disable",      hos_system_call_vexpro_disable_handler},
    {"get_vpd_productnamed",            hos_get_vpd_productnamed_handler},
    {"get_vpd_eepkey",                  hos_get_vpd_eepkey_handler},
    {"get_vpd_channel",                 hos_get_vpd_channel_handler},
    {"is_generic_model",                hos_is_generic_model_handler},
    {"get_platform_display_name",       hos_get_platform_display_name_handler},
    {"system_call_share_folder_renew",  hos_system_call_share_folder_renew_handler},
    {"is_vxb_model",                    hos_system_is_VXB_model_handler},
};

constexpr command_entry sendmail_handler[] = {
    {"test",                            hos_test_sendmail_srv_handler},
};
// clang-format on

static_assert(std::size(handler) == 11);
static_assert(std::size(sendmail_handler) == 1);

} // namespace

std::span<const command_entry> main_commands() {
    return handler;
}

std::span<const command_entry> mail_commands() {
    return sendmail_handler;
}
