// The simulated host's tools, answering what the input says.
#pragma once

#include <string>
#include <string_view>

class host_answers {
public:
    /// From here on all tools follow one set of knobs and leave no records. One in a process, for its whole life. Ends
    /// the process with 77, skipped, outside the simulated host.
    host_answers();

    /// Lays such a tool over a program that the host shares with the machine. Ends the process with 77 where nobody may
    /// mount.
    void cover(const std::string& program);

    /// All tools print `output` and exit with `status`, or with 256 more end by that signal.
    void set(std::string_view output, unsigned status) const;
    /// All tools do their own jobs.
    void clear() const;

private:
    static void follow(std::string tool);
};
