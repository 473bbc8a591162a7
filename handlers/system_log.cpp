// Cloud analysis, and the host's event and connection logs: one tool each, run with the caller's values.
#include "argument_vector.h"
#include "fresh_file.h"
#include "handler_call.h"
#include "handlers.h"
#include "host_paths.h"
#include "log.h"
#include "runner.h"
#include "tool_run.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace {

// Rewrites the record of the last registration.
void write_register_record(const std::string& command, const std::string& provide_id, int status) {
    std::array<char, 512> command_line{};
    (void)std::snprintf(command_line.data(), command_line.size(), "%s %s -p %s -c %s", kAnalyticTool, command.c_str(),
                        provide_id.c_str(), kAnalyticFolder);
    const unique_fd record = create_anew(kAnalyticRecord, 0644);
    if (record.ok()) {
        (void)::dprintf(record.get(), "cmd=[%s]\nprovide_id=[%s]\nstr_cloud_analysis_register=[%s]\nret_val=[%d]\n",
                        command.c_str(), provide_id.c_str(), command_line.data(), status);
    }
}

// The agent's commands that are about a provider as such.
int run_provider_command(const char* function, ks_io* io) {
    handler_call call(function, io);
    std::string provide_id;
    std::string command;
    if (call.take({{"provide_id", &provide_id}, {"command", &command}})) {
        call.finish(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kAnalyticTool, command.c_str(), "-p",
                                           provide_id.c_str(), nullptr));
    }
    return call.send();
}

// Runs a log tool; what it prints is not wanted.
int run_log_tool(const char* path, std::vector<std::string> arguments) {
    const argument_vector argv(first_slash_argv(path, std::move(arguments)));
    return lyn_vexprod_corvo_exec_v(nullptr, nullptr, nullptr, path, argv.data());
}

} // namespace

int hos_system_call_cloud_analysis_register_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string provide_id;
    std::string command;
    if (call.take({{"provide_id", &provide_id}, {"command", &command}})) {
        const int status = lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kAnalyticTool, command.c_str(), "-p",
                                                  provide_id.c_str(), "-c", kAnalyticFolder, nullptr);
        call.finish(status);
        write_register_record(command, provide_id, status); // of a failed one as well
    }
    return call.send();
}

int hos_system_call_cloud_analysis_send_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string provide_id;
    std::string command;
    std::string record_type;
    std::string record_text;
    if (call.take({{"provide_id", &provide_id},
                   {"command", &command},
                   {"record_type", &record_type},
                   {"record_text", &record_text}})) {
        call.finish(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kAnalyticTool, command.c_str(), "-p",
                                           provide_id.c_str(), "-r", record_type.c_str(), "-e", record_text.c_str(),
                                           nullptr));
    }
    return call.send();
}

int hos_system_call_cloud_analysis_flush_handler(ks_io* io, int /*fd*/) {
    return run_provider_command(__func__, io);
}

int hos_system_call_cloud_analysis_unregister_handler(ks_io* io, int /*fd*/) {
    return run_provider_command(__func__, io);
}

int hos_system_call_log_tool_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::int32_t log_type{};
    std::string message;
    if (call.take({{"log_type", &log_type}, {"log_mseg", &message}})) { // KEPT: "log_mseg" is the protocol's spelling
        const std::vector<std::string> arguments = {"-t", std::to_string(log_type), "-a", message};
        int position = 2; // KEPT: the trace numbers the first argument 2
        for (const std::string& argument : arguments) {
            dbg_printf2("[%s][%d] argv:%d , index:%s .", __func__, __LINE__, position, argument.c_str());
            ++position;
        }
        call.finish(run_log_tool(kEventLogTool, arguments));
    }
    return call.send();
}

int hos_system_conn_log_tool_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::int32_t log_type{};
    std::int32_t service_type{};
    std::int32_t action_type{};
    std::string message;
    std::string user;
    std::string ip;
    std::string computer;
    if (call.take({{"log_type", &log_type},
                   {"service_type", &service_type},
                   {"action_type", &action_type},
                   {"log_mseg", &message},
                   {"user_name", &user},
                   {"IP", &ip},
                   {"computer_name", &computer}})) {
        dbg_printf2("[%s][%d] LogType:%d , ServiceType:%d, ActionType:%d, LogMsg:%s, UserName:%s, IP:%s, "
                    "ComputerName:%s .",
                    __func__, __LINE__, log_type, service_type, action_type, message.c_str(), user.c_str(), ip.c_str(),
                    computer.c_str());
        const int status = run_log_tool(
            kConnectionLogTool, {"-t", std::to_string(log_type), "-i", std::to_string(service_type), "-n",
                                 std::to_string(action_type), "-a", message, "-u", user, "-p", ip, "-m", computer});
        if (!call.finish(status)) {
            dbg_printf2("[%s][%d] fail .", __func__, __LINE__);
            // KEPT: clients match on the event-log handler's text, not on this one's name.
            call.fail("hos_system_call_log_tool_handler fail");
        }
    }
    return call.send();
}
