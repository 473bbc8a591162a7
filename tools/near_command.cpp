#include "command_list.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <vector>

namespace ksctl {

namespace {

constexpr std::size_t kFarthest = 2;

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

} // namespace

const command_summary* near_command(std::string_view service, std::string_view name) {
    const command_summary* nearest = nullptr;
    std::size_t least = kFarthest + 1;
    for (const command_summary& each : command_list()) {
        if (service == each.service) {
            const std::size_t distance = edit_distance(name, each.name);
            if (distance < least) {
                least = distance;
                nearest = &each;
            }
        }
    }
    return least == 0 ? nullptr : nearest;
}

} // namespace ksctl
