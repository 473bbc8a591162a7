// Indents JSON for people.
#pragma once

#include <string>
#include <string_view>

namespace ksctl {

/// Formats `text` with one member or element per line and a final newline. Only the blanks between tokens change:
/// order, numbers and escapes stay as the service wrote them. Text that is not JSON is returned unchanged.
std::string indent_json(std::string_view text);

} // namespace ksctl
