#include "text.h"

#include <algorithm>
#include <string_view>

void trim_char(std::string& s, const char* chars) {
    const std::string_view removed(chars);
    std::erase_if(s, [removed](char c) { return removed.find(c) != std::string_view::npos; });
}

void trim_front_and_end(std::string& s, const char* chars) {
    s.erase(s.find_last_not_of(chars) + 1); // none left: npos + 1 is 0
    s.erase(0, s.find_first_not_of(chars));
}

std::vector<std::string> str_split_to_vector(const std::string& s, const char* delims, bool skip_empty) {
    std::vector<std::string> pieces;
    for (std::size_t start = 0; start <= s.size();) {
        const std::size_t end = std::min(s.find_first_of(delims, start), s.size());
        if (end > start || !skip_empty) {
            pieces.push_back(s.substr(start, end - start));
        }
        start = end + 1;
    }
    return pieces;
}
