// Runs a command line of a test and collects what it printed.
#ifndef VEXPROD_TESTS_SHELL_H
#define VEXPROD_TESTS_SHELL_H

#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

struct shell_result {
    std::string output; ///< Standard output.
    int status;         ///< Raw wait status.
};

inline shell_result shell(const std::string& command) {
    shell_result result{"", -1};
    if (FILE* stream = popen(command.c_str(), "r")) {
        std::array<char, 4096> chunk{};
        for (std::size_t got = 0; (got = fread(chunk.data(), 1, chunk.size(), stream)) > 0;) {
            result.output.append(chunk.data(), got);
        }
        result.status = pclose(stream);
    }
    return result;
}

inline int exit_code(const shell_result& result) {
    return WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
}

#endif
