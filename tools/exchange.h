// One call with all that can become of it. ks_call() has the same steps, but does not tell a connection that failed
// before the service took the request from one that ended without a reply afterwards; for a caller that wants to try
// again this is the difference that matters.
#pragma once

#include "scoped.h"

#include <string>
#include <string_view>

namespace ksctl {

/// Below this the library's own calls do not go, and neither do these, unless they wait without a limit.
constexpr unsigned kShortestTimeoutS = 5;
constexpr unsigned kNoTimeout = 0;

/// How a call ended.
struct outcome {
    int status;        ///< An exit_status; 0 = there is a reply.
    std::string error; ///< One line for people; empty when there is a reply.
    unique_io reply;   ///< Null without a reply.
};

/// Writes all of `text` into the memory file. @return False and errno when it does not take it all: then it must not be
/// sent, as half a text can be read as another one.
[[nodiscard]] bool write_all(ks_io* io, std::string_view text);

/// A new request that holds `payload`. @return Null and errno when the memory file does not take it all.
unique_io make_request(std::string_view payload);

/// Calls `service` and waits. Takes SIGALRM, which all other threads have to block.
/// @param service    May be an alias.
/// @param request    Taken over.
/// @param timeout_s  Raised to kShortestTimeoutS; kNoTimeout waits for ever.
/// @param passfd     Borrowed descriptor to hand over, or -1.
outcome exchange(const std::string& service, const std::string& command, unique_io request, unsigned timeout_s,
                 int passfd);

/// All bytes of a reply.
std::string read_all(ks_io* reply);

} // namespace ksctl
