#include "handler_call.h"

#include "json_helpers.h"
#include "log.h"

bool handler_call::take(std::initializer_list<request_key> keys, location where) {
    Json::Value request;
    if (!json_parse(request_text(io_), &request)) {
        dbg_printf2("[%s][%d] ks_io input fail.", function_, where.line);
        reject("input error");
        return false;
    }
    bool failed = false;
    for (const request_key& key : keys) {
        parser_param_from_json_str(request, key.name, key.out, key.type, &failed);
    }
    if (failed) {
        reject("paser fail");
    }
    return !failed;
}

bool handler_call::finish(int status) {
    if (status != 0) {
        fail();
        return false;
    }
    reply_["result"] = 0;
    return true;
}

void handler_call::fail() {
    fail(std::string(function_) + " fail");
}

void handler_call::fail(const std::string& message, int result) {
    reply_["error_msg"] = message;
    reply_["result"] = result;
}

void handler_call::reject(const std::string& message, int error_code) {
    reply_["error_msg"] = message;
    reply_["error_code"] = error_code;
}

int handler_call::send() {
    ks_reply_json(json_write_compact(reply_), io_);
    return 0;
}
