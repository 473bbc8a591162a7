#include "cloud_call.h"

#include "base64.h"
#include "log.h"
#include "tool_run.h"

#include <utility>

bool take_cloud_keys(handler_call& call, std::initializer_list<request_key> keys, handler_call::location where) {
    const bool taken = call.take(keys, where);
    if (!taken) {
        call.reject("paser fail");
    }
    return taken;
}

void reply_cloud_tool(handler_call& call, const char* path, std::vector<std::string> arguments,
                      handler_call::location where) {
    tool_run run = run_tool(path, first_slash_argv(path, std::move(arguments)));
    if (call.finish(run.status)) {
        call.reply()["result_out"] = base64_text(run.output.read_all());
        call.reply()["cli_ret"] = 0;
    }
    if (run.output.remove() != 0) {
        dbg_printf2("[%s][%d] remove tmpfile:[%s] fail.", call.function(), where.line, run.output.path());
    }
}
