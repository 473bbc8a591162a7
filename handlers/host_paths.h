// The host's fixed paths and names, each once. The few that util/ or tools/ also need are in host_config.h.
#ifndef VEXPROD_HANDLERS_HOST_PATHS_H
#define VEXPROD_HANDLERS_HOST_PATHS_H

// In this package's section of the package registry, whose path is host_config.h's.
inline constexpr const char* kControlScriptField = "Shell"; ///< Its control script, run with one action.

// The two services that the daemon publishes.
inline constexpr const char* kMainService = "VexHubServer-vexprod";
inline constexpr const char* kMailService = "VexHubServer_send_mail-vexprod";

inline constexpr const char* kControlPanelConfig = "/etc/kos.ui.cp.conf";
inline constexpr const char* kPlatformConfig = "/etc/platform.conf";
inline constexpr const char* kGenericModelMark = "/etc/IS_G"; ///< Exists on generic models.

// Mail: the folder that callers fill, the host's mail program, and what the last run leaves behind.
inline constexpr const char* kMailSpool = "/tmp/vexsurveillance_sendmail";
inline constexpr const char* kMailProgram = "/usr/sbin/sendmail";
inline constexpr const char* kMailLog = "/tmp/.vexsurveillance_log/sendmail.log";
inline constexpr const char* kMailLastConfig = "/tmp/.vexsurveillance_log/sendmail.conf";
inline constexpr const char* kMailLastContent = "/tmp/.vexsurveillance_log/sendmail.content";
inline constexpr const char* kMailRecord = "/tmp/.vexsurveillance_log/sendmail.dbg";

// Shares, notifications and the media viewer, another package.
inline constexpr const char* kShareGuard = "/sbin/no_del_share";
inline constexpr const char* kSharePermissionScript = "/etc/init.d/vex_smb_update.sh";
inline constexpr const char* kAttributeReader = "/usr/bin/getfattr";
inline constexpr const char* kShell = "/bin/sh";
inline constexpr const char* kNotifyWrapper = "script/nc_wrapper.sh"; ///< In the package's folder.
inline constexpr const char* kNotifyScript = "vexpro_notify.sh";      ///< In the package's folder.
inline constexpr const char* kViewerPackage = "CayinMediaViewer";
inline constexpr const char* kViewerTool = "bin/cfgread"; ///< In the viewer's folder.

// Cloud analysis and the host's two logs.
inline constexpr const char* kAnalyticTool = "/usr/local/bin/zanalytic_tool";
inline constexpr const char* kAnalyticFolder = "/share/.@analytic";
inline constexpr const char* kAnalyticRecord = "/tmp/.vexsurveillance_log/cloud_analysis_register.dbg";
inline constexpr const char* kEventLogTool = "/sbin/log_tool";
inline constexpr const char* kConnectionLogTool = "/sbin/conn_log_tool";

// The reverse proxy, a web server of its own.
inline constexpr const char* kProxyProgram = "/usr/sbin/reverseproxy_vexsurveillance";
inline constexpr const char* kProxyService = "reverseproxy_vexsurveillance"; ///< Its name for kServiceKeeper.
inline constexpr const char* kProxyConfig = "/etc/reverseproxy_vexsurveillance/reverseproxy-vexsurveillance.conf";
inline constexpr const char* kProxyRules = "/etc/reverseproxy_vexsurveillance/extra/"; ///< One file per rule.
inline constexpr const char* kProxyPidFile = "/var/lock/apache_reverse_proxy_vexsurveillance.pid";
inline constexpr const char* kServiceKeeper = "/sbin/svc_keeper";
inline constexpr const char* kServerCertificate = "/etc/stunnel/stunnel.pem";

inline constexpr const char* kContainerTool = "/usr/sbin/vsh";

// The host's web front end and the TLS tunnel before it.
inline constexpr const char* kBanList = "/etc/default_config/apache/extra/vexcms_ip_ban_list.conf";
inline constexpr const char* kWebServer = "/usr/local/apache/bin/apache_proxy";
inline constexpr const char* kWebServerConfig = "/etc/apache-sys-proxy.conf";
inline constexpr const char* kTunnelScript = "/etc/init.d/stunnel.sh";

// Sessions and accounts.
inline constexpr const char* kLoginTool = "/sbin/zcli";
inline constexpr const char* kSessionLibrary = "/usr/lib/libhcore_nasauth.so.1.0.0";
inline constexpr const char* kConfigLibrary = "/usr/lib/libhcore_config.so.0.0";
inline constexpr const char* kAccountLibrary = "/usr/lib/libhcore_NAS.so.0.0";

// The cloud account.
inline constexpr const char* kCloudAuthTool = "/usr/local/bin/nimbo_auth_tool";
inline constexpr const char* kCloudDeviceTool = "/usr/local/bin/nimbo_device_tool";
inline constexpr const char* kCloudTunnelTool = "/usr/local/bin/nimbo_tunnel_agent_tool";
inline constexpr const char* kCloudTool = "/usr/sbin/nimbo_tool";
inline constexpr const char* kCloudHostTool = "/usr/sbin/get_nimbo_host";
inline constexpr const char* kCloudCli = "/usr/bin/nimbo_cli";
inline constexpr const char* kCloudAccountConfig = "/etc/config/xid.conf";
inline constexpr const char* kBoardUidTool = "/sbin/board_uid";       ///< Serial number of boards made for the cloud.
inline constexpr const char* kBoardSerialTool = "/sbin/board_serial"; ///< Serial number of all others.

// Below a folder that the request or the registry names.
inline constexpr const char* kInstallScript = "script/operate_zpkgcenter_app.sh";      ///< Of the package centre.
inline constexpr const char* kAgentCli = "ext_service/ExtVexCloudAgent/vex_agent_cli"; ///< Of this package.

#endif
