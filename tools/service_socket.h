// Where a service's socket is, and whether somebody listens there.
#pragma once

#include <string>

namespace ksctl {

/// Whether `name` can name a service for a caller; if not, that has been reported.
[[nodiscard]] bool check_service_name(const std::string& name);

/// The path at which callers look for the service `name`.
std::string service_path(const std::string& name);

enum class presence {
    up,   ///< somebody accepts connections
    full, ///< somebody listens, but has too many connections to accept already
    down  ///< nobody listens: no such socket, or one left behind
};

/// Tries the socket, without waiting. The service sees a caller that leaves at once.
presence probe(const std::string& path);

} // namespace ksctl
