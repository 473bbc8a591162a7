// Where a service's socket is, whether somebody listens there, and why not.
#pragma once

#include <array>
#include <string>

namespace ksctl {

/// A service that this system has.
struct known_service {
    const char* name;
    const char* alias; ///< Short name that ksctl takes instead, or "".
};

inline constexpr std::array<known_service, 3> kKnownServices = {{{"VexHubServer-vexprod", "main"},
                                                                 {"VexHubServer_send_mail-vexprod", "mail"},
                                                                 {"VexHubServer_notify-vexprod", ""}}};

inline constexpr const char* kSocketDirectory = "/var/run/ks";

/// The service's own name for "main" and "mail", any other name as it is.
std::string full_service_name(const std::string& given);

/// Whether `name` can name a service for a caller; if not, that has been reported.
[[nodiscard]] bool check_service_name(const std::string& name);

/// The path at which callers look for the service `name`, which may be an alias.
std::string service_path(const std::string& name);

enum class presence {
    up,   ///< somebody accepts connections
    full, ///< somebody listens, but has too many connections to accept already
    down  ///< nobody listens: no such socket, or one left behind; errno tells
};

/// Tries the socket, without waiting. The service sees a caller that leaves at once.
presence probe(const std::string& path);

/// Why nobody could be reached under the service's name: misspelt, not started, gone, or not allowed.
/// @param error  The connection's errno. @return "REASON; what it means".
std::string why_absent(const std::string& name, int error);

/// Which folder on the way to `path` keeps this process out, and by which mode. @return Nothing if none does.
std::string who_keeps_out(const std::string& path);

} // namespace ksctl
