// log_tool and conn_log_tool: append one line to the host's event log or connection log.

#include "tool.h"

#include <fstream>

namespace {

int append(const char* log_path, const arguments& args) {
    std::string line;
    for (const std::string& argument : args) {
        line += (line.empty() ? "" : " ") + argument;
    }
    std::ofstream log(log_path, std::ios::app);
    return log << line << '\n' ? 0 : 1;
}

} // namespace

int log_event(const arguments& args) {
    return append("/var/log/event.log", args);
}

int log_connection(const arguments& args) {
    return append("/var/log/connection.log", args);
}
