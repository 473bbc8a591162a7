// Requests and replies as JSON. The library's reader and writers of the old interface are used by json_helpers.cpp
// alone: what clients see (the reply's layout, the texts that still parse) is theirs. Nothing here throws on any
// request.
#ifndef VEXPROD_UTIL_JSON_HELPERS_H
#define VEXPROD_UTIL_JSON_HELPERS_H

#include "kservice.h"

#include <json/value.h>

#include <cstddef>
#include <string>

/// Longest request text that is read, in bytes. Requests are a few hundred bytes; mails are the largest.
inline constexpr std::size_t kRequestLimitBytes = std::size_t{16} * 1024 * 1024;

/// Copies the request out of `io`, once: up to its first NUL byte or its end. The mapping is not touched, as a caller
/// may truncate its file at any moment, and every later look at the copy sees the same text.
/// @return The text; empty without one, when it cannot be read, and when it is longer than kRequestLimitBytes. A file
///         that is merely long is read no further than its first NUL, so a hole costs nothing.
std::string request_text(const ks_io* io);

/// Parses JSON (comments are allowed and kept).
/// @param ret_root  Untouched on failure.
/// @return False for whatever the library refuses, too deep a nesting included.
bool json_parse(const std::string& text, Json::Value* ret_root);

/// The same by the library's newer reader, whose rules and error texts a few commands have.
/// @param ret_error  Receives the library's description of the failure; may be null.
bool json_parse_stream(const std::string& text, Json::Value* ret_root, std::string* ret_error);

/// @return `value` without indentation, keys sorted, and a line feed: the form of all replies but one.
std::string json_write_compact(const Json::Value& value);
/// @return `value` as the newer writer's defaults give it: indented by a tab, no line feed at the end.
std::string json_write_stream(const Json::Value& value);

/// Names the type of `root`'s member `key`: "string", "int" (fits 32 bits), "long" (any other whole number), "bool",
/// "double" or, for everything else and for a member that is not there, "Others".
void get_json_type(const Json::Value& root, const char* key, std::string* ret_type);

/// Takes one parameter out of a request.
/// @param out   Where it goes, by `type`: "string" std::string, "int" int32_t, "long" int64_t, "bool" int32_t (1 or 0).
///              Untouched on failure.
/// @param fail  Set to true when the member is missing, null or not of that type, or the type word is none of the four;
///              never cleared, so that a caller tests it once after all its keys.
void parser_param_from_json_str(const Json::Value& root, const char* key, void* out, const char* type, bool* fail);

/// Replaces the request in `io` by `text` and tells the caller that its reply is complete. A caller that is gone gets
/// nothing, and nothing is reported.
void ks_reply_json(const std::string& text, ks_io* io);

#endif
