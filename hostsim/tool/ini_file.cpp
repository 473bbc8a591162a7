#include "ini_file.h"

#include <fstream>

namespace {

std::string trimmed(const std::string& text) {
    constexpr const char* kBlanks = " \t\r\n";
    const auto first = text.find_first_not_of(kBlanks);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

} // namespace

std::optional<std::string> ini_value(const std::string& path, const std::string& section, const std::string& field) {
    std::ifstream file(path);
    std::string current;
    for (std::string line; std::getline(file, line);) {
        line = trimmed(line);
        if (line.empty() || line.front() == '#' || line.front() == ';') {
            continue;
        }
        if (line.front() == '[') {
            current = trimmed(line.substr(1, line.find(']') - 1));
            continue;
        }
        const auto equals = line.find('=');
        if (equals != std::string::npos && current == section && trimmed(line.substr(0, equals)) == field) {
            return trimmed(line.substr(equals + 1));
        }
    }
    return std::nullopt;
}
