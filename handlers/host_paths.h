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

#endif
