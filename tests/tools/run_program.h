// Runs a real program and collects what it says.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct finished {
    int status = -1; ///< Exit status, or 128 + the signal that killed it.
    std::string out;
    std::string err;
};

/// Runs `argv` with `input` on standard input and waits for its end.
finished run_program(const std::vector<std::string>& argv, const std::string& input = "");

/// A program that goes on running. It is killed at scope end if it has not ended.
class running_program {
public:
    explicit running_program(const std::vector<std::string>& argv);
    ~running_program();
    running_program(const running_program&) = delete;
    running_program& operator=(const running_program&) = delete;

    /// The next line of its standard output, without the newline; fails the test after ten seconds.
    std::string read_line();
    void write_stdin(const std::string& text); ///< At most what a pipe holds, 64 KiB.
    void close_stdin();
    void close_stdout(); ///< Nobody reads any more.
    void kill(int signum) const;
    [[nodiscard]] pid_t pid() const { return pid_; }
    finished wait(); ///< `out` is what read_line() has not taken.

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string pending_;
};
