// How commands with their own keys and defaults read a request: with the JSON library's newer reader, and member by
// member with the library's conversions instead of the template's take().
//
// Some conversions throw (a string instead of a number, a list instead of a string). Only the dispatch catches that: it
// ends such a request without a reply.
#ifndef VEXPROD_HANDLERS_STREAM_REQUEST_H
#define VEXPROD_HANDLERS_STREAM_REQUEST_H

#include "handler_call.h"

#include <json/value.h>

#include <string>

/// Reads the request of `io`.
/// @param ret_request  Receives the object; untouched on failure.
/// @return False with "input error" in the reply of `call` if the text is not JSON or not an object.
[[nodiscard]] bool parse_stream_request(handler_call& call, const ks_io* io, Json::Value* ret_request,
                                        int line = __builtin_LINE());

/// Rejects a request that has been read: "input error" in the reply of `call`, and `reason` in the log.
void refuse_stream_request(handler_call& call, const std::string& reason, int line = __builtin_LINE());

#endif
