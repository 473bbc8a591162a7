// The host's fixed paths and names, each once.
#ifndef VEXPROD_HANDLERS_HOST_PATHS_H
#define VEXPROD_HANDLERS_HOST_PATHS_H

// The package registry, an INI file, and this package's section in it.
inline constexpr const char* kPackageRegistry = "/etc/config/zpkg.conf";
inline constexpr const char* kPackage = "VexHubServer";
inline constexpr const char* kInstallPathField = "Install_Path"; ///< Folder the package is installed in.
inline constexpr const char* kControlScriptField = "Shell";      ///< Its control script, run with one action.

// The two services that the daemon publishes.
inline constexpr const char* kMainService = "VexHubServer-vexprod";
inline constexpr const char* kMailService = "VexHubServer_send_mail-vexprod";

inline constexpr const char* kControlPanelConfig = "/etc/kos.ui.cp.conf";
inline constexpr const char* kPlatformConfig = "/etc/platform.conf";
inline constexpr const char* kGenericModelMark = "/etc/IS_G"; ///< Exists on generic models.

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
inline constexpr const char* kConfigReader = "/sbin/cfgread";
inline constexpr const char* kCloudAccountConfig = "/etc/config/xid.conf";
inline constexpr const char* kBoardUidTool = "/sbin/board_uid";       ///< Serial number of boards made for the cloud.
inline constexpr const char* kBoardSerialTool = "/sbin/board_serial"; ///< Serial number of all others.

// Below a folder that the request or the registry names.
inline constexpr const char* kInstallScript = "/script/operate_zpkgcenter_app.sh";      ///< Of the package centre.
inline constexpr const char* kAgentCli = "/ext_service/ExtVexCloudAgent/vex_agent_cli"; ///< Of this package.

#endif
