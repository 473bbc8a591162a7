// How the commands that have their own keys and defaults read a request: by the JSON library's newer reader, and member
// by member with the library's conversions instead of the template's take().
//
// Some conversions throw (a text where a number must be, a list where a text must be). Nobody catches that on the way:
// the dispatch ends such a request without a reply.
#ifndef VEXPROD_HANDLERS_STREAM_REQUEST_H
#define VEXPROD_HANDLERS_STREAM_REQUEST_H

#include "handler_call.h"

#include <json/value.h>

#include <string>

/// Reads the request of `io`.
/// @param ret_request  Receives the object; untouched on failure.
/// @return False with "input error" in the reply of `call` when the text is not JSON or is no object.
[[nodiscard]] bool parse_stream_request(handler_call& call, const ks_io* io, Json::Value* ret_request,
                                        int line = __builtin_LINE());

/// Refuses a request that has been read: "input error" in the reply of `call`, and `reason` in the log.
void refuse_stream_request(handler_call& call, const std::string& reason, int line = __builtin_LINE());

#endif
