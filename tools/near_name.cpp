#include "near_name.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <limits>
#include <numeric>

namespace ksctl {

namespace {

constexpr std::size_t kFarthest = 2;     // letters that may differ
constexpr std::size_t kShortestPart = 3; // shorter beginnings and parts stand in too many names
constexpr std::size_t kBegins = kFarthest + 1;
constexpr std::size_t kContains = kFarthest + 2;
constexpr std::size_t kFar = std::numeric_limits<std::size_t>::max();

// How many letters have to be left out, put in or replaced to make one text of the other.
std::size_t edit_distance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> row(to.size() + 1); // distances of what is read of `from` to each beginning of `to`
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (const char letter : from) {
        std::size_t diagonal = row[0]++;
        for (std::size_t i = 0; i < to.size(); ++i) {
            const std::size_t replaced = diagonal + (letter == to[i] ? 0 : 1);
            diagonal = row[i + 1];
            row[i + 1] = std::min({replaced, row[i] + 1, diagonal + 1});
        }
    }
    return row.back();
}

// Without what people get wrong most easily.
std::string folded(std::string_view name) {
    std::string text;
    for (const char c : name) {
        if (c != '_' && c != '-' && c != ' ') {
            text += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    return text;
}

bool contains(const std::string& text, const std::string& part) {
    return part.size() >= kShortestPart && text.find(part) != std::string::npos;
}

std::size_t distance(const std::string& given, const std::string& name) {
    const std::size_t letters = edit_distance(given, name);
    if (letters <= kFarthest && letters * 2 <= std::max(given.size(), name.size())) {
        return letters;
    }
    if (contains(name, given)) {
        return name.starts_with(given) ? kBegins : kContains;
    }
    return contains(given, name) ? kContains : kFar;
}

} // namespace

std::vector<std::string> near_names(std::string_view given, const std::vector<std::string>& names) {
    std::vector<std::string> nearest;
    std::size_t least = kFar;
    const std::string folded_given = folded(given);
    for (const std::string& name : names) {
        const std::size_t far = distance(folded_given, folded(name));
        if (far < least) {
            least = far;
            nearest.clear();
        }
        if (far == least && far != kFar) {
            nearest.push_back(name);
        }
    }
    return nearest;
}

std::string did_you_mean(const std::vector<std::string>& names) {
    constexpr std::size_t kMost = 3;
    std::string text;
    for (std::size_t i = 0; i < std::min(names.size(), kMost); ++i) {
        const bool last = i + 1 == names.size();
        text += (i == 0 ? "did you mean " : last ? " or " : ", ") + names[i];
    }
    if (names.size() > kMost) {
        text += " or one of " + std::to_string(names.size() - kMost) + " more";
    }
    return text.empty() ? text : text + "?";
}

} // namespace ksctl
