// What the cloud-account and cloud-tunnel handlers share, beyond the template.
#ifndef VEXPROD_HANDLERS_CLOUD_CALL_H
#define VEXPROD_HANDLERS_CLOUD_CALL_H

#include "handler_call.h"

#include <initializer_list>
#include <string>
#include <vector>

/// handler_call::take(), except that every rejection reads "paser fail".
/// KEPT: even for a text that is not JSON, traced as usual; clients of these commands know no "input error".
[[nodiscard]] bool take_cloud_keys(handler_call& call, std::initializer_list<request_key> keys,
                                   handler_call::location where = handler_call::location::current());

/// Runs the tool and replies with all its output: "result_out" in Base64, "cli_ret" and "result" 0; or, if it failed,
/// the handler's failure. A temporary file that cannot be removed is traced and does not change the reply.
void reply_cloud_tool(handler_call& call, const char* path, std::vector<std::string> arguments,
                      handler_call::location where = handler_call::location::current());

#endif
