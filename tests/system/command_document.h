// docs/commands.md, read line by line: its fixed form is what its head explains to people.
#ifndef VEXPROD_TESTS_SYSTEM_COMMAND_DOCUMENT_H
#define VEXPROD_TESTS_SYSTEM_COMMAND_DOCUMENT_H

#include <string>
#include <string_view>
#include <vector>

/// "- Word `code` `code` …: text" of an entry.
struct documented_line {
    std::string word;              ///< "Runs", "Key" and so on; empty for a line that only people read.
    std::vector<std::string> code; ///< What stands between backticks directly after the word.
    std::string text;              ///< The rest of the line, or all of a line that only people read.
};

struct documented_command {
    std::string service;
    std::string name;
    std::string summary;
    std::vector<documented_line> lines;
    std::string request; ///< Without the newline before the fence.
    std::string reply;   ///< Likewise.

    /// The lines that begin with `word`, in order.
    [[nodiscard]] std::vector<documented_line> lines_of(std::string_view word) const;
    /// Whether some line has `text` behind its code.
    [[nodiscard]] bool says(std::string_view text) const;
};

/// The document's entries in order. A line that does not fit the form throws std::runtime_error.
std::vector<documented_command> read_command_document(const std::string& path);

/// Whether `text` is `pattern`, in which "…" stands for anything.
bool fits(std::string_view pattern, std::string_view text);

#endif
