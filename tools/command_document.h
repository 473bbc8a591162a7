// docs/commands.md, read line by line: its fixed form is what its head explains to people. ksctl tells of the commands
// what stands there, and the test suite holds the same against the daemon.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// "- Word `code` `code` …: text" of an entry.
struct documented_line {
    std::string word;              ///< "Runs", "Key" and so on; empty for a line that only people read.
    std::vector<std::string> code; ///< What stands between backticks directly after the word.
    std::string text;              ///< The rest of the line, or all of a line that only people read.

    /// Where in `text` the ": " of the meaning stands, behind the request of " to `request`: meaning". npos = nowhere.
    [[nodiscard]] std::size_t colon() const;
};

/// "- Key `name` (type of a rule, default …): meaning".
struct documented_key {
    std::string name;
    std::string type;     ///< One word.
    bool of_rule = false; ///< A member of the rules in `rule_list`, not of the request itself.
    bool required = true; ///< The request is refused without it.
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
    /// Whether some line has `text` behind its code.
    [[nodiscard]] bool says(std::string_view text) const;
};

/// The document's entries in order. A line that does not fit the form throws std::runtime_error.
std::vector<documented_command> read_command_document(const std::string& text);

/// Whether `text` is `pattern`, in which "…" stands for anything.
bool fits(std::string_view pattern, std::string_view text);
