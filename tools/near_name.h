// Names that somebody may have meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ksctl {

/// Those of `names` that come nearest to `given`, in their order: case and the separators "_" and "-" do not count.
/// Nearest are the names that differ by the fewest letters left out, put in or replaced, two at most and no more than
/// half of them; if there are none, the names that begin with `given`; if there are none, those that contain it, and
/// those that it contains. @return Nothing when none is near.
std::vector<std::string> near_names(std::string_view given, const std::vector<std::string>& names);

/// "did you mean A, B or C?"; of more than three the number. @return Nothing for no names.
std::string did_you_mean(const std::vector<std::string>& names);

} // namespace ksctl
