#include "command_document.h"

#include "test_files.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::string_view kAnything = "…";

// The words that a line of an entry can begin with, for the suite to check.
constexpr std::array<std::string_view, 13> kWords = {
    "Key",         "Reads",       "Runs",        "May run",          "Calls",        "Writes", "Replies", "No reply",
    "No reply to", "Given: file", "Given: tool", "Given: attribute", "Given: folder"};

[[noreturn]] void refuse(const std::string& line) {
    throw std::runtime_error("not in the document's form: " + line);
}

// Takes "`code` `code`" off the front of `text`.
std::vector<std::string> take_code(std::string& text) {
    std::vector<std::string> code;
    while (text.starts_with(" `")) {
        const std::size_t end = text.find('`', 2);
        if (end == std::string::npos) {
            refuse(text);
        }
        code.push_back(text.substr(2, end - 2));
        text.erase(0, end + 1);
    }
    return code;
}

documented_line read_line(std::string text) {
    for (const std::string_view word : kWords) {
        if (text.starts_with(std::string(word) + " `") || (word == "No reply" && text.starts_with("No reply:"))) {
            text.erase(0, word.size());
            std::vector<std::string> code = take_code(text);
            return {std::string(word), std::move(code), text};
        }
    }
    return {"", {}, text};
}

// "## Main service: `NAME`"
std::string service_of(const std::string& heading) {
    const std::size_t begin = heading.find('`') + 1;
    return heading.substr(begin, heading.rfind('`') - begin);
}

// The lines of a block up to its fence.
std::string read_block(std::istream& document) {
    std::string block;
    for (std::string line; std::getline(document, line);) {
        if (line == "```") {
            return block;
        }
        block += (block.empty() ? "" : "\n") + line;
    }
    refuse("a block without an end");
}

void read_entry_line(const std::string& line, std::istream& document, documented_command& entry,
                     std::vector<std::string>& items) {
    if (line == "```json request") {
        entry.request = read_block(document);
    } else if (line == "```json reply") {
        entry.reply = read_block(document);
    } else if (line.starts_with("- ")) {
        items.push_back(line.substr(2));
    } else if (line.starts_with("  ") && !items.empty()) {
        items.back() += line.substr(1);
    } else if (!line.empty() && entry.summary.empty()) {
        entry.summary = line;
    } else if (!line.empty()) {
        refuse(line);
    }
}

} // namespace

std::vector<documented_line> documented_command::lines_of(std::string_view word) const {
    std::vector<documented_line> found;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                 [word](const documented_line& line) { return line.word == word; });
    return found;
}

bool documented_command::says(std::string_view text) const {
    return std::any_of(lines.begin(), lines.end(),
                       [text](const documented_line& line) { return line.text.find(text) != std::string::npos; });
}

std::vector<documented_command> read_command_document(const std::string& path) {
    std::istringstream document(read_file(path));
    std::vector<documented_command> commands;
    std::vector<std::vector<std::string>> items; // of each command, continuation lines joined
    std::string service;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("## ")) {
            service = line.find(" service: `") != std::string::npos ? service_of(line) : "";
        } else if (line.starts_with("### `") && line.ends_with('`')) {
            commands.push_back({service, line.substr(5, line.size() - 6), "", {}, "", ""});
            items.emplace_back();
        } else if (!service.empty() && !commands.empty()) {
            read_entry_line(line, document, commands.back(), items.back());
        }
    }
    for (std::size_t i = 0; i < commands.size(); ++i) {
        for (std::string& item : items[i]) {
            commands[i].lines.push_back(read_line(std::move(item)));
        }
    }
    return commands;
}

bool fits(std::string_view pattern, std::string_view text) {
    std::size_t wild = pattern.find(kAnything);
    if (wild == std::string_view::npos) {
        return pattern == text;
    }
    if (!text.starts_with(pattern.substr(0, wild))) {
        return false;
    }
    text.remove_prefix(wild);
    for (;;) {
        pattern.remove_prefix(wild + kAnything.size());
        wild = pattern.find(kAnything);
        if (wild == std::string_view::npos) {
            return text.ends_with(pattern);
        }
        const std::size_t found = text.find(pattern.substr(0, wild)); // the first place leaves most for the rest
        if (found == std::string_view::npos) {
            return false;
        }
        text.remove_prefix(found + wild);
    }
}
