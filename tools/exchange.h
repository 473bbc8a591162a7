// One call with all its outcomes. ks_call() has the same steps, but does not distinguish a connection that failed
// before the service took the request from one that ended afterwards without a reply; to a caller that wants to retry
// that difference matters.
#pragma once

#include "scoped.h"

#include <optional>
#include <string>
#include <string_view>

namespace ksctl {

/// The minimum of the library's calls, and of these unless they wait without limit.
constexpr unsigned kShortestTimeoutS = 5;
constexpr unsigned kNoTimeout = 0;

/// How a call ended.
struct outcome {
    int status;        ///< An exit_status; 0 = there is a reply.
    std::string error; ///< One line for people; empty when there is a reply.
    unique_io reply;   ///< Null without a reply.
};

/// Writes all of `text` into the memory file. @return False and errno if it does not fit: it must then not be sent, as
/// a truncated text may read as a different one.
[[nodiscard]] bool write_all(ks_io* io, std::string_view text);

/// A new request that holds `payload`. @return Null and errno if that does not fit into the memory file.
unique_io make_request(std::string_view payload);

/// Calls `service` and waits. Its name and the command have been checked: check_service_name(), check_command().
/// @param service    May be an alias.
/// @param request    Taken over.
/// @param timeout_s  At least kShortestTimeoutS; kNoTimeout waits for ever.
/// @param passfd     Borrowed descriptor to hand over, or -1.
outcome exchange(const std::string& service, const std::string& command, unique_io request, unsigned timeout_s,
                 int passfd);

/// All bytes of what the other side has written. @return Nothing and errno if they cannot be read.
std::optional<std::string> read_all(ks_io* io);

} // namespace ksctl
