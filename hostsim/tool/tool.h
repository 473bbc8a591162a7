// The host's stand-in tools: one program under many paths.
#ifndef VEXPROD_HOSTSIM_TOOL_H
#define VEXPROD_HOSTSIM_TOOL_H

#include <span>
#include <string>
#include <vector>

/// What a tool's job gets to see: its arguments, argument 0 left out.
using arguments = std::vector<std::string>;

/// One tool of the host.
struct tool {
    const char* path;                  ///< Where the host keeps it.
    int (*job)(const arguments& args); ///< Does the tool's work; the result is the exit status.
};

/// Every tool, in tools.cpp.
std::span<const tool> all_tools();

/// The tool that this process runs as, by the file that was executed: argument 0 is the caller's choice. A program of
/// the machine that a test has covered with this one only has to be called. Null for the program itself.
const tool* running_tool();

// The jobs. Each stands in a file named after it or after its subject.
int succeed(const arguments& args);
int read_config(const arguments& args);
int control_hardware(const arguments& args);
int log_in(const arguments& args);
int sign_in_to_cloud(const arguments& args);
int describe_cloud_devices(const arguments& args);
int drive_cloud_tunnel(const arguments& args);
int print_user_token(const arguments& args);
int print_cloud_host(const arguments& args);
int print_board_kind(const arguments& args);
int print_board_number(const arguments& args);
int run_web_server(const arguments& args);
int send_mail(const arguments& args);
int keep_service(const arguments& args);
int log_event(const arguments& args);
int log_connection(const arguments& args);
int guard_shares(const arguments& args);
int browse_remotely(const arguments& args);

#endif
