// The host's own data: its INI-style configuration, its product data, the fixed TLS settings.
#ifndef VEXPROD_UTIL_HOST_CONFIG_H
#define VEXPROD_UTIL_HOST_CONFIG_H

#include <string>

// Where the host keeps these data.
inline constexpr const char* kConfigReader = "/sbin/cfgread";
inline constexpr const char* kHardwareTool = "/sbin/hwctl";
inline constexpr const char* kPackageRegistry = "/etc/config/zpkg.conf"; ///< INI file of all packages.
inline constexpr const char* kPackage = "VexHubServer";                  ///< This package's section in it.
inline constexpr const char* kInstallPathField = "Install_Path";         ///< Folder the package is installed in.
inline constexpr const char* kChainCertificate = "/etc/stunnel/uca.pem"; ///< Not every host has one.

/// Reads one value of the host's configuration with kConfigReader.
/// @param file   The configuration file; null = the tool's own default.
/// @param value  Receives the first line that the tool prints, at most 127 characters; untouched if nothing was found.
/// @return Non-zero if a value was found (it may be empty), else 0. Note: not the usual status convention.
int ks_get_ini_info(const char* file, const char* section, const char* field, std::string& value);

/// Reads one field of the hardware's product data with kHardwareTool.
/// @param obj_index  The field, such as "0:9".
/// @param value      Receives the field's text. Pass it empty: the tool's output is appended.
/// @return 0, or -2 if the tool could not be started or its output is not one key, "=", one value; that output then
///         stays in `value`.
int system_call_hwctl_vpdget(const char* obj_index, std::string& value);

/// Sets `*out` to `text` without its blanks and newlines.
void parser_VPD_ext_area_from_str(const std::string& text, std::string* out);

/// Extracts the values of "enc_sys_id" and "SN" from a product-data text such as "enc_sys_id = abc, SN = 123\n".
/// @param text  Must hold both keys: an offset beyond its end throws std::out_of_range and leaves both outputs alone.
void parser_VPD_SN_from_str(const std::string& text, std::string* enc_sys_id, std::string* serial);

int get_ssl_protocol(std::string& out);     ///< Sets the protocol list of the host's web server. @return 0.
int get_ssl_cipher(std::string& out);       ///< Sets its cipher list. @return 0.
int get_ssl_protocol_ver(std::string& out); ///< KEPT: leaves `out` as it is. @return 0.

/// @return 1 if kChainCertificate exists, else 0.
int get_uca_file_exist();

#endif
