// Completion candidates at the cursor in a ksctl command line: for the shells' scripts in completions/, which run
// "ksctl complete WORD…".
#pragma once

#include <string>
#include <vector>

namespace ksctl {

struct candidate {
    std::string text;
    std::string meaning; ///< One line, or "".
};

struct option_words {
    std::string name; ///< "--timeout".
    std::string meaning;
    bool takes_value;
};

struct subcommand_words {
    std::string name;
    std::string meaning;
    std::vector<option_words> options;
    std::vector<std::string> arguments; ///< As named in the help, in order: SERVICE, COMMAND, REQUEST.
};

/// @param words  The words after "ksctl" up to the cursor; the last one, which may be empty, is to be completed.
/// @return Whole words that begin with it.
std::vector<candidate> candidates(const std::vector<std::string>& words,
                                  const std::vector<subcommand_words>& subcommands);

} // namespace ksctl
