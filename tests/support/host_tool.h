// One of the simulated host's tools, as a test sees it: what it shall answer, and how it was called.
//
//     host_tool cfgread("/sbin/cfgread");
//     cfgread.answers("/share/Elsewhere\n").exits(0);
//     ... run the code under test ...
//     ASSERT_EQ(cfgread.calls().size(), 1U);
//     EXPECT_THAT(cfgread.calls()[0].argv, ElementsAre("cfgread", "Section", "Field"));
//
// A tool that is told nothing does its job. Answers, exits and dies_by replace the job; delays and complains add to it.
// The last argument of each chooses the call it is meant for, counted from 1; 0 is every call that has no own answer.
#ifndef VEXPROD_TESTS_HOST_TOOL_H
#define VEXPROD_TESTS_HOST_TOOL_H

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

/// One call of a tool, as the tool found it.
struct tool_call {
    std::vector<std::string> argv;    ///< Argument 0, the caller's choice, included.
    std::vector<std::string> env;     ///< "NAME=VALUE" each.
    std::vector<int> fds;             ///< Open descriptors, ascending.
    std::vector<std::string> targets; ///< What each of `fds` leads to, for example "/dev/null" or "pipe:[42]".
    std::string stdin_text;           ///< Empty unless reads_stdin() was asked for.
    std::string cwd;
    std::string signals; ///< The lines "SigBlk:" and "SigIgn:" of the kernel's process status.
};

class host_tool {
public:
    /// Forgets what earlier tests told the tool and its earlier calls. Throws outside the simulated host, where the
    /// path would be the machine's own program.
    explicit host_tool(std::string path);

    host_tool& answers(std::string_view standard_output, unsigned call = 0);
    host_tool& complains(std::string_view standard_error, unsigned call = 0);
    host_tool& exits(int status, unsigned call = 0);
    host_tool& dies_by(int signal, unsigned call = 0);
    host_tool& delays(std::chrono::milliseconds delay, unsigned call = 0);
    /// The tool reads its standard input, a file or a pipe, to its end before it does anything else.
    host_tool& reads_stdin();

    /// The calls so far, in order.
    [[nodiscard]] std::vector<tool_call> calls() const;
    /// Forgets the calls and all that the tool was told.
    void clear();

    [[nodiscard]] const std::string& path() const { return path_; }

private:
    host_tool& set(const std::string& knob, std::string_view value, unsigned call);

    std::string path_;
    std::string calls_;
    std::string knobs_;
};

/// For a program that the host shares with the machine: the recording tool lies over it for as long as this lives, is
/// called in its place, and succeeds unless a host_tool of the same path is told otherwise.
class covered_program {
public:
    /// @param path  No part of it may be a link: the tool keeps its records under the path of the file that was
    ///              executed. Throws when it cannot be covered.
    explicit covered_program(std::string path);
    covered_program(const covered_program&) = delete;
    covered_program& operator=(const covered_program&) = delete;
    ~covered_program();

private:
    std::string path_;
};

#endif
