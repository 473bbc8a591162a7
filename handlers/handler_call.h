// The template of all handlers: read and parse the request, take each key, act, reply.
//
//     int hos_do_it_handler(ks_io* io, int /*fd*/) {
//         handler_call call(__func__, io);
//         std::string name;
//         if (call.take({{"name", &name}})) {
//             call.finish(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kTool, name.c_str(), nullptr));
//         }
//         return call.send();
//     }
//
// A handler without parameters does not call take(). One that deviates from the template does so in its own code, in
// place of take() and finish(); the template has no modes.
#ifndef VEXPROD_HANDLERS_HANDLER_CALL_H
#define VEXPROD_HANDLERS_HANDLER_CALL_H

#include "kservice.h"

#include <json/value.h>

#include <cstdint>
#include <initializer_list>
#include <string>

/// One key of a request and where its value goes. The destination's type says what the value must be.
struct request_key {
    request_key(const char* key, std::string* destination) : name(key), out(destination), type("string") {}
    request_key(const char* key, std::int32_t* destination) : name(key), out(destination), type("int") {}

    const char* name;
    void* out;
    const char* type; ///< The type word of parser_param_from_json_str().
};

/// One run of a handler. Owns the reply; the dispatch owns `io`.
class handler_call {
public:
    /// The handler's source line, for its traces. (clang-tidy 14 cannot parse std::source_location.)
    struct location {
        int line;
        static location current(int line = __builtin_LINE()) { return {line}; }
    };

    /// @param function  The handler's name, for traces and failure texts; a literal, normally __func__.
    handler_call(const char* function, ks_io* io) : function_(function), io_(io) {}
    handler_call(const handler_call&) = delete;
    handler_call& operator=(const handler_call&) = delete;

    /// Parses the request, then takes every key in order; all are tried even after a failure.
    /// @return True with all destinations set. False with the rejection in the reply: "input error" for a text that is
    ///         not JSON, "paser fail" (clients match on the spelling) for a key that is missing or of another type.
    [[nodiscard]] bool take(std::initializer_list<request_key> keys, location where = location::current());

    /// Sets the outcome of the host action: "result" 0 when `status` is 0, else fail().
    /// @return status == 0.
    bool finish(int status);
    /// Sets "error_msg", "<handler> fail" unless another text is given, and "result".
    void fail();
    void fail(const std::string& message, int result = -1);
    /// Sets "error_msg" and "error_code".
    void reject(const std::string& message, int error_code = -1);

    /// The reply object; a handler sets only the keys that it reaches.
    [[nodiscard]] Json::Value& reply() { return reply_; }
    [[nodiscard]] const char* function() const { return function_; }

    /// Serialises the reply and sends it if the caller still waits. @return 0, for the handler to return.
    int send();

private:
    const char* function_;
    ks_io* io_;
    Json::Value reply_ = Json::Value(Json::objectValue);
};

#endif
