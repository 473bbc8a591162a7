// Trimming and splitting.
#ifndef VEXPROD_UTIL_TEXT_H
#define VEXPROD_UTIL_TEXT_H

#include <string>
#include <vector>

/// Removes every character of `chars` from `s`, wherever it stands.
void trim_char(std::string& s, const char* chars);

/// Removes the characters of `chars` at the end and at the start of `s`; inner ones stay.
void trim_front_and_end(std::string& s, const char* chars);

/// Splits `s` at every character of `delims`.
/// @param skip_empty  Leaves empty pieces out. Otherwise there is always one piece more than delimiters.
std::vector<std::string> str_split_to_vector(const std::string& s, const char* delims, bool skip_empty);

#endif
