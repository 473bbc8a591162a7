// Parses docs/commands.md line by line; its introduction explains the fixed format. ksctl describes the commands from
// it, and the test suite checks it against the daemon.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// "- Word `code` `code` …: text" of an entry.
struct documented_line {
    std::string word;              ///< "Runs", "Key" and so on; empty for free text.
    std::vector<std::string> code; ///< What is in backticks directly after the word.
    std::string text;              ///< The rest of the line, or all of it for free text.

    /// Position in `text` of the ": " before the meaning, after the request of " to `request`: meaning". npos = none.
    [[nodiscard]] std::size_t colon() const;
};

/// "- Key `name` (type of a rule, default …): meaning".
struct documented_key {
    std::string name;
    std::string type;     ///< One word.
    bool of_rule{};       ///< A member of the rules in `rule_list`, not of the request itself.
    bool required{};      ///< The request is rejected without it.
    std::string standard; ///< The default's text, or empty.
    std::string meaning;
};

struct documented_command {
    std::string section; ///< "main" or "mail".
    std::string service;
    std::string name;
    std::string summary;
    std::vector<documented_line> lines;
    std::string request; ///< Without the newline before the fence.
    std::string reply;   ///< Likewise.

    /// The lines that begin with `word`, in order.
    [[nodiscard]] std::vector<documented_line> lines_of(std::string_view word) const;
    [[nodiscard]] std::vector<documented_key> keys() const;
    /// Whether some line has `text` after its code.
    [[nodiscard]] bool says(std::string_view text) const;
};

/// The document's entries in order. A malformed line throws std::runtime_error.
std::vector<documented_command> read_command_document(const std::string& text);

/// Whether `text` matches `pattern`, in which "…" matches anything.
bool fits(std::string_view pattern, std::string_view text);
