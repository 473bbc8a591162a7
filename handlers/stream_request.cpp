#include "stream_request.h"

#include "json_helpers.h"
#include "log.h"

#include <utility>

bool parse_stream_request(handler_call& call, const ks_io* io, Json::Value* ret_request, int line) {
    Json::Value request;
    std::string error;
    if (json_parse_stream(request_text(io), &request, &error)) {
        if (request.isObject()) {
            *ret_request = std::move(request);
            return true;
        }
        error = "not an object";
    }
    refuse_stream_request(call, error, line);
    return false;
}

void refuse_stream_request(handler_call& call, const std::string& reason, int line) {
    dbg_printf2("[%s][%d] parse strInputArg failed, error=[%s]", call.function(), line, reason.c_str());
    call.reject("input error");
}
