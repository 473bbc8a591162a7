#include "tool_run.h"

#include "argument_vector.h"
#include "log.h"
#include "runner.h"

#include <utility>

tool_run run_tool(const std::string& path, std::vector<std::string> argv, tool_errors errors) {
    const argument_vector vector(std::move(argv));
    tool_run run = {temp_file(), -1};
    const char* error_file = errors == tool_errors::with_output ? run.output.path() : nullptr;
    run.status = lyn_vexprod_corvo_exec_v(run.output.path(), error_file, nullptr, path.c_str(), vector.data());
    return run;
}

std::vector<std::string> first_slash_argv(const std::string& path, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), path.substr(path.find('/') + 1)); // no "/": npos + 1 is 0
    return arguments;
}

std::string take_output(tool_run& run) {
    std::string text = run.output.read_all();
    (void)run.output.remove(); // a tool may have removed it already
    return text;
}

void trace_arguments(const char* function, const std::vector<std::string>& argv, const char* line_end, int line) {
    for (std::size_t i = 0; i <= argv.size(); ++i) {
        dbg_printf2("[%s][%d] argv[%d] = [%s]%s", function, line, static_cast<int>(i),
                    i < argv.size() ? argv[i].c_str() : "(null)", line_end);
    }
}
