// Reading the host's INI files.
#ifndef VEXPROD_HOSTSIM_INI_FILE_H
#define VEXPROD_HOSTSIM_INI_FILE_H

#include <optional>
#include <string>

/// The value of `field` in `[section]` of `path`, trimmed; nothing when the file, the section or the field is missing.
/// Names are compared exactly. Lines that begin with '#' or ';' are comments; the first of several equal fields counts.
std::optional<std::string> ini_value(const std::string& path, const std::string& section, const std::string& field);

#endif
