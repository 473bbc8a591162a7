// Requests and replies as JSON. Only json_helpers.cpp uses the library's deprecated reader and writers: they define
// what clients see (the reply's layout, the texts that still parse). Nothing here throws on any request.
#ifndef VEXPROD_UTIL_JSON_HELPERS_H
#define VEXPROD_UTIL_JSON_HELPERS_H

#include "kservice.h"

#include <json/value.h>

#include <cstddef>
#include <string>

/// Longest request text that is read, in bytes. Requests are a few hundred bytes; mails are the largest.
inline constexpr std::size_t kRequestLimitBytes = std::size_t{16} * 1024 * 1024;

/// Copies the request out of `io`, once: up to its first NUL byte or its end. The mapping is not used, as a caller may
/// truncate its file at any moment, and the copy never changes.
/// @return The text; empty without one, if it cannot be read, and if it is longer than kRequestLimitBytes. A longer
///         file is read no further than its first NUL, so a hole costs nothing.
std::string request_text(const ks_io* io);

/// Parses JSON (comments are allowed and kept).
/// @param ret_root  Untouched on failure.
/// @return False for whatever the library rejects, including too deep nesting and a text it has no memory for.
bool json_parse(const std::string& text, Json::Value* ret_root);

/// The same with the library's newer reader, whose rules and error texts a few commands use.
/// @param ret_error  Receives the library's description of the failure; may be null.
bool json_parse_stream(const std::string& text, Json::Value* ret_root, std::string* ret_error);

/// @return `value` without indentation, keys sorted, and a newline: the form of all replies but one.
std::string json_write_compact(const Json::Value& value);
/// @return `value` with the newer writer's defaults: indented by tabs, no final newline.
std::string json_write_stream(const Json::Value& value);

/// Names the type of `root`'s member `key`: "string", "int" (fits 32 bits), "long" (any other integer), "bool",
/// "double" or, for everything else and for a missing member, "Others".
void get_json_type(const Json::Value& root, const char* key, std::string* ret_type);

/// Reads one parameter of a request.
/// @param out   Destination, by `type`: "string" std::string, "int" int32_t, "long" int64_t, "bool" int32_t (1 or 0).
///              Untouched on failure.
/// @param fail  Set to true if the member is missing, null or not of that type, or the type word is none of the four;
///              never cleared, so that a caller tests it once after all its keys.
void parser_param_from_json_str(const Json::Value& root, const char* key, void* out, const char* type, bool* fail);

/// Replaces the request in `io` with `text` and tells the caller that its reply is complete. If the caller is gone,
/// nothing is sent or reported.
void ks_reply_json(const std::string& text, ks_io* io);

#endif
