// Indents JSON for people.
#pragma once

#include <string>
#include <string_view>

namespace ksctl {

/// Lays `text` out with one member or element per line and a newline at the end. Only the blanks between tokens change:
/// order, numbers and escapes stay as the service wrote them. Text that is not JSON is returned as it is.
std::string indent_json(std::string_view text);

} // namespace ksctl
