// Trimming and splitting.
#ifndef VEXPROD_UTIL_TEXT_H
#define VEXPROD_UTIL_TEXT_H

#include <string>
#include <vector>

/// Removes every character of `chars` from `s`, anywhere.
void trim_char(std::string& s, const char* chars);

/// Strips the characters of `chars` from both ends of `s`.
void trim_front_and_end(std::string& s, const char* chars);

/// Splits `s` at every character of `delims`.
/// @param skip_empty  Omits empty pieces. Otherwise there is always one more piece than delimiters.
std::vector<std::string> str_split_to_vector(const std::string& s, const char* delims, bool skip_empty);

#endif
