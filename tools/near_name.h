// Suggestions for misspelt names.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ksctl {

/// Those of `names` nearest to `given`, in their order, ignoring case and the separators "_" and "-": the names at the
/// smallest edit distance, at most two and at most half of the letters; if there are none, the names that begin with
/// `given`; if there are none, those that contain it, and those that it contains. @return Nothing if none is near.
std::vector<std::string> near_names(std::string_view given, const std::vector<std::string>& names);

/// "did you mean A, B or C?"; beyond three, their number. @return Nothing for no names.
std::string did_you_mean(const std::vector<std::string>& names);

} // namespace ksctl
