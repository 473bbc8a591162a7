// One run of a tool with all its output captured.
#ifndef VEXPROD_HANDLERS_TOOL_RUN_H
#define VEXPROD_HANDLERS_TOOL_RUN_H

#include "temp_file.h"

#include <string>
#include <vector>

/// A run's result. Owns the output's file, unless that is removed or released before.
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

/// A tool's argument vector: its path without everything up to the first "/", then `arguments`.
/// KEPT: the first slash, so that "/sbin/cfgread" becomes "sbin/cfgread", not the base name.
[[nodiscard]] std::vector<std::string> first_slash_argv(const std::string& path, std::vector<std::string> arguments);

/// Reads all the tool's output, and removes the file: done before the reply is sent, so that a caller with its reply
/// finds nothing left of the request.
[[nodiscard]] std::string take_output(tool_run& run);

/// Logs every entry of a tool's argument vector, and the vector's end as "(null)".
/// @param line_end  Appended to each line after its closing bracket.
void trace_arguments(const char* function, const std::vector<std::string>& argv, const char* line_end = "",
                     int line = __builtin_LINE());

#endif
