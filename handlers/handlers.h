// Every command's handler, by source file.
//
// A handler answers one request: it reads the request's text from `io`, acts on the host and replies through `io`,
// which stays its caller's (the dispatch frees it afterwards). `fd` is the descriptor that the client passed, already
// made the process's standard output, or -1; no handler reads it. The return value is not used.
#ifndef VEXPROD_HANDLERS_HANDLERS_H
#define VEXPROD_HANDLERS_HANDLERS_H

#include "kservice.h"

// host_query.cpp: what needs no parameters worth naming.
int hos_test_handler(ks_io* io, int fd);
int hos_test_sendmail_srv_handler(ks_io* io, int fd);
int hos_exec_cli_handler(ks_io* io, int fd);
int hos_get_cfg_tvLounge_handler(ks_io* io, int fd);
int hos_system_call_vexpro_disable_handler(ks_io* io, int fd);
int hos_system_call_share_folder_renew_handler(ks_io* io, int fd);
int hos_get_vpd_productnamed_handler(ks_io* io, int fd);
int hos_get_vpd_eepkey_handler(ks_io* io, int fd);
int hos_get_vpd_channel_handler(ks_io* io, int fd);
int hos_is_generic_model_handler(ks_io* io, int fd);
int hos_get_platform_display_name_handler(ks_io* io, int fd);
int hos_system_is_VXB_model_handler(ks_io* io, int fd);

// mail.cpp
int hos_sendmail_handler(ks_io* io, int fd);

// integration.cpp: shares, product data, notifications, the media viewer.
int hos_system_call_no_del_share_add_handler(ks_io* io, int fd);
int hos_system_call_no_del_share_remove_handler(ks_io* io, int fd);
int hos_system_call_findly_list_add_handler(ks_io* io, int fd);
int hos_get_vpd_ext_area_handler(ks_io* io, int fd);
int hos_system_vxb_smb_setfolder_priv_handler(ks_io* io, int fd);
int hos_system_call_nc_notify_handler(ks_io* io, int fd);
int hos_system_get_tiermount_cloud_usage_handler(ks_io* io, int fd);
int hos_return_handler(ks_io* io, int fd);
int hos_cmv_cli_handler(ks_io* io, int fd);

// system_log.cpp: cloud analysis, event log, connection log.
int hos_system_call_cloud_analysis_register_handler(ks_io* io, int fd);
int hos_system_call_cloud_analysis_send_handler(ks_io* io, int fd);
int hos_system_call_cloud_analysis_flush_handler(ks_io* io, int fd);
int hos_system_call_cloud_analysis_unregister_handler(ks_io* io, int fd);
int hos_system_call_log_tool_handler(ks_io* io, int fd);
int hos_system_conn_log_tool_handler(ks_io* io, int fd);

// reverse_proxy.cpp
int hos_reverse_proxy_handler(ks_io* io, int fd);

// remote_browser.cpp
int hos_web_kiosk_handler(ks_io* io, int fd);

// ban_list.cpp
int hos_update_ip_ban_list_handler(ks_io* io, int fd);

// account.cpp: login sessions, users, groups, SMS settings.
int hos_get_sess_id_handler(ks_io* io, int fd);
int hos_vex_auth_add_session_handler(ks_io* io, int fd);
int hos_vex_auth_get_session_handler(ks_io* io, int fd);
int hos_get_sms_config_handler(ks_io* io, int fd);
int hos_get_all_users_handler(ks_io* io, int fd);
int hos_get_all_groups_handler(ks_io* io, int fd);
int hos_get_group_members_handler(ks_io* io, int fd);

// cloud_account.cpp: the host's cloud account and its identity as a cloud device.
int hos_get_hwsn_handler(ks_io* io, int fd);
int hos_system_call_cloud_get_device_list_handler(ks_io* io, int fd);
int hos_system_call_cloud_get_device_info_handler(ks_io* io, int fd);
int hos_system_call_cloud_get_device_status_handler(ks_io* io, int fd);
int hos_system_call_cloud_get_xid_service_handler(ks_io* io, int fd);
int hos_system_call_cloud_get_user_token_handler(ks_io* io, int fd);
int hos_system_call_cloud_get_host_endpoint_handler(ks_io* io, int fd);
int hos_system_call_cloud_get_host_site_handler(ks_io* io, int fd);
int hos_system_call_cloud_get_access_token_handler(ks_io* io, int fd);

// cloud_tunnel.cpp: the cloud's messaging tunnel.
int hos_system_call_cloud_ncm_tunnel_agent_handler(ks_io* io, int fd);

// applications.cpp: programs that belong to a package rather than to the host.
int hos_install_app_handler(ks_io* io, int fd);
int vex_agent_cli_handler(ks_io* io, int fd);

#endif
