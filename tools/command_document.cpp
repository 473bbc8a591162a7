#include "command_document.h"

#include <algorithm>
#include <array>
#include <cctype>
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

// What the heading "## Main service: `NAME`" opens; another heading opens nothing.
struct service_section {
    std::string section;
    std::string service;
};

service_section section_of(const std::string& heading) {
    const std::size_t word_end = heading.find(" service: `");
    if (word_end == std::string::npos) {
        return {};
    }
    const std::size_t begin = heading.find('`') + 1;
    std::string section = heading.substr(3, word_end - 3);
    std::transform(section.begin(), section.end(), section.begin(), [](unsigned char c) { return std::tolower(c); });
    return {std::move(section), heading.substr(begin, heading.rfind('`') - begin)};
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

std::size_t documented_line::colon() const {
    return text.find(": ", text.starts_with(" to `") ? text.rfind('`') : 0);
}

std::vector<documented_line> documented_command::lines_of(std::string_view word) const {
    std::vector<documented_line> found;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                 [word](const documented_line& line) { return line.word == word; });
    return found;
}

// A key's line goes on behind its name as " (TYPE of a rule, default WHAT): MEANING"; all but the type may be missing.
std::vector<documented_key> documented_command::keys() const {
    std::vector<documented_key> keys;
    for (const documented_line& line : lines_of("Key")) {
        const std::size_t end = line.text.find("): ");
        if (line.code.size() != 1 || !line.text.starts_with(" (") || end == std::string::npos) {
            refuse("Key" + line.text);
        }
        const std::string kind = line.text.substr(2, end - 2);
        documented_key key;
        key.name = line.code.front();
        key.type = kind.substr(0, kind.find_first_of(", "));
        key.of_rule = kind.find(" of a rule") != std::string::npos;
        key.required = !key.of_rule && kind.find(", default ") == std::string::npos;
        key.meaning = line.text.substr(end + 3);
        if (const std::size_t standard = kind.find(", default "); standard != std::string::npos) {
            key.standard = kind.substr(standard + std::string_view(", default ").size());
        }
        keys.push_back(std::move(key));
    }
    return keys;
}

bool documented_command::says(std::string_view text) const {
    return std::any_of(lines.begin(), lines.end(),
                       [text](const documented_line& line) { return line.text.find(text) != std::string::npos; });
}

std::vector<documented_command> read_command_document(const std::string& text) {
    std::istringstream document(text);
    std::vector<documented_command> commands;
    std::vector<std::vector<std::string>> items; // of each command, continuation lines joined
    service_section current;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("## ")) {
            current = section_of(line);
        } else if (line.size() > 6 && line.starts_with("### `") && line.ends_with('`')) {
            commands.push_back({current.section, current.service, line.substr(5, line.size() - 6), "", {}, "", ""});
            items.emplace_back();
        } else if (!current.service.empty() && !commands.empty()) {
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
