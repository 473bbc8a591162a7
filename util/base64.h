// Base64 with the standard alphabet of RFC 4648.
#ifndef VEXPROD_UTIL_BASE64_H
#define VEXPROD_UTIL_BASE64_H

#include <string>
#include <string_view>

/// The 64 digits, in order of their values.
inline constexpr std::string_view base64_chars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Replaces `out` by `in` encoded, padded with "=" to a multiple of four characters, without line breaks.
void base64_encode(const std::string& in, std::string& out);

/// @return `text` encoded.
[[nodiscard]] std::string base64_text(const std::string& text);

/// Replaces `out` by `in` decoded, up to the first "=" or other character outside the alphabet; the rest is ignored.
/// Two or three characters left over give one or two bytes, a single one gives none.
void base64_decode(const std::string& in, std::string& out);

#endif
