// Where a service's socket is, whether it accepts connections, and why not.
#pragma once

#include <array>
#include <string>
#include <sys/un.h>

namespace ksctl {

/// A service that this system has.
struct known_service {
    const char* name;
    const char* alias; ///< Short name that ksctl accepts instead, or "".
};

inline constexpr std::array<known_service, 3> kKnownServices = {{{"VexHubServer-vexprod", "main"},
                                                                 {"VexHubServer_send_mail-vexprod", "mail"},
                                                                 {"VexHubServer_notify-vexprod", ""}}};

inline constexpr const char* kSocketDirectory = "/var/run/ks";

/// The service's own name for "main" and "mail", any other name unchanged.
std::string full_service_name(const std::string& given);

/// Whether `name` is a valid service name for a caller; if not, reports that.
[[nodiscard]] bool check_service_name(const std::string& name);

/// The path at which callers look for the service `name`, which may be an alias.
std::string service_path(const std::string& name);

/// The address of the socket `path`, of which it holds the first 108 characters.
sockaddr_un socket_address(const std::string& path);

enum class presence {
    up,   ///< accepts connections
    full, ///< listens, but its backlog is full
    down  ///< nobody listens: no such socket, or one left behind; errno tells
};

/// Tries the socket, without waiting. The service sees a caller that leaves at once.
presence probe(const std::string& path);

/// Why the service could not be reached: misspelt, not started, gone, or not allowed.
/// @param error  The connection's errno. @return "REASON; what it means".
std::string why_absent(const std::string& name, int error);

/// Which folder on the way to `path` denies access, and by which mode. @return Nothing if none does.
std::string who_keeps_out(const std::string& path);

} // namespace ksctl
