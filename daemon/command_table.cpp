#include "command_table.h"

#include "handlers.h"

namespace {

// Handlers are named hos_<command>_handler; three names differ, and stay so: get_tvlounge_status, is_vxb_model and
// notify_return run handlers of other names, and vex_agent_cli's lacks the prefix.
// clang-format off
constexpr command_entry handler[] = {
    {"test",                                   hos_test_handler},
    {"exec_cli",                               hos_exec_cli_handler},
    {"get_tvlounge_status",                    hos_get_cfg_tvLounge_handler},
    {"system_call_log_tool",                   hos_system_call_log_tool_handler},
    {"system_conn_log_tool",                   hos_system_conn_log_tool_handler},
    {"get_sess_id",                            hos_get_sess_id_handler},
    {"system_call_no_del_share_add",           hos_system_call_no_del_share_add_handler},
    {"system_call_no_del_share_remove",        hos_system_call_no_del_share_remove_handler},
    {"system_call_vexpro_disable",             hos_system_call_vexpro_disable_handler},
    {"get_vpd_productnamed",                   hos_get_vpd_productnamed_handler},
    {"get_vpd_eepkey",                         hos_get_vpd_eepkey_handler},
    {"get_vpd_channel",                        hos_get_vpd_channel_handler},
    {"get_vpd_ext_area",                       hos_get_vpd_ext_area_handler},
    {"is_generic_model",                       hos_is_generic_model_handler},
    {"get_platform_display_name",              hos_get_platform_display_name_handler},
    {"system_call_cloud_analysis_register",    hos_system_call_cloud_analysis_register_handler},
    {"system_call_cloud_analysis_send",        hos_system_call_cloud_analysis_send_handler},
    {"system_call_cloud_analysis_flush",       hos_system_call_cloud_analysis_flush_handler},
    {"system_call_cloud_analysis_unregister",  hos_system_call_cloud_analysis_unregister_handler},
    {"system_vxb_smb_setfolder_priv",          hos_system_vxb_smb_setfolder_priv_handler},
    {"system_call_share_folder_renew",         hos_system_call_share_folder_renew_handler},
    {"system_call_findly_list_add",            hos_system_call_findly_list_add_handler},
    {"vex_auth_add_session",                   hos_vex_auth_add_session_handler},
    {"vex_auth_get_session",                   hos_vex_auth_get_session_handler},
    {"get_sms_config",                         hos_get_sms_config_handler},
    {"get_all_users",                          hos_get_all_users_handler},
    {"get_all_groups",                         hos_get_all_groups_handler},
    {"get_group_members",                      hos_get_group_members_handler},
    {"system_call_nc_notify",                  hos_system_call_nc_notify_handler},
    {"system_get_tiermount_cloud_usage",       hos_system_get_tiermount_cloud_usage_handler},
    {"is_vxb_model",                           hos_system_is_VXB_model_handler},
    {"update_ip_ban_list",                     hos_update_ip_ban_list_handler},
    {"notify_return",                          hos_return_handler},
    {"get_hwsn",                               hos_get_hwsn_handler},
    {"system_call_cloud_get_device_list",      hos_system_call_cloud_get_device_list_handler},
    {"system_call_cloud_get_xid_service",      hos_system_call_cloud_get_xid_service_handler},
    {"system_call_cloud_get_user_token",       hos_system_call_cloud_get_user_token_handler},
    {"system_call_cloud_get_host_endpoint",    hos_system_call_cloud_get_host_endpoint_handler},
    {"system_call_cloud_get_host_site",        hos_system_call_cloud_get_host_site_handler},
    {"system_call_cloud_get_access_token",     hos_system_call_cloud_get_access_token_handler},
    {"system_call_cloud_ncm_tunnel_agent",     hos_system_call_cloud_ncm_tunnel_agent_handler},
    {"reverse_proxy",                          hos_reverse_proxy_handler},
    {"web_kiosk",                              hos_web_kiosk_handler},
    {"install_app",                            hos_install_app_handler},
    {"cmv_cli",                                hos_cmv_cli_handler},
    {"system_call_cloud_get_device_info",      hos_system_call_cloud_get_device_info_handler},
    {"vex_agent_cli",                          vex_agent_cli_handler},
    {"system_call_cloud_get_device_status",    hos_system_call_cloud_get_device_status_handler},
};

constexpr command_entry sendmail_handler[] = {
    {"test",                                   hos_test_sendmail_srv_handler},
    {"sendmail",                               hos_sendmail_handler},
};
// clang-format on

static_assert(std::size(handler) == 48);
static_assert(std::size(sendmail_handler) == 2);

} // namespace

std::span<const command_entry> main_commands() {
    return handler;
}

std::span<const command_entry> mail_commands() {
    return sendmail_handler;
}
