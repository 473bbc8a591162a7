// What the description says about a call that failed.
#pragma once

#include "command_document.h"

#include <optional>
#include <string>

namespace ksctl {

/// Whether `reply` says that the request failed: a JSON object with "error_msg", or with an "error_code" or a "result"
/// that is a number other than 0, unless the description has it as an example's reply.
/// @param command  Null if it is unknown.
bool says_failure(const documented_command* command, const std::string& reply);

/// One line on why `request` got its reply: the key that is missing or of another type, or else what the description
/// says about such a reply, the tools that were run and the log.
/// @param reply  One that says failure. Nothing = the service closed the connection without one.
/// @return Nothing if the description does not have such a reply.
std::string explain(const documented_command& command, const std::string& request,
                    const std::optional<std::string>& reply);

} // namespace ksctl
