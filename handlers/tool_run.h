// One run of a tool whose output is wanted as a whole.
#ifndef VEXPROD_HANDLERS_TOOL_RUN_H
#define VEXPROD_HANDLERS_TOOL_RUN_H

#include "temp_file.h"

#include <string>
#include <vector>

/// What a run left behind. The output's file goes with it, unless it is removed or released before.
struct tool_run {
    temp_file output; ///< What the tool printed. Without a file (`!output.ok()`) the tool was not run.
    int status;       ///< Raw wait status; -1 = not run. 0 = ran, and exited with 0.
};

/// Where the tool's standard error goes.
enum class tool_errors { discarded, with_output };

/// Runs `path` with an empty environment and waits.
/// @param argv  Argument 0 included. An entry ends at its first NUL.
[[nodiscard]] tool_run run_tool(const std::string& path, std::vector<std::string> argv,
                                tool_errors errors = tool_errors::discarded);

/// The vector that a tool gets: its path without everything up to the first "/", then `arguments`.
/// KEPT: the first slash, so that "/sbin/cfgread" becomes "sbin/cfgread", not the base name.
[[nodiscard]] std::vector<std::string> first_slash_argv(const std::string& path, std::vector<std::string> arguments);

/// Reads all that the tool printed, and removes the file: done before the reply goes out, so that a caller who has its
/// reply finds nothing left of the request.
[[nodiscard]] std::string take_output(tool_run& run);

/// Logs every entry of the vector that a tool gets, and the vector's end as "(null)".
/// @param line_end  What each line has behind its closing bracket.
void trace_arguments(const char* function, const std::vector<std::string>& argv, const char* line_end = "",
                     int line = __builtin_LINE());

#endif
