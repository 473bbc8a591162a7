// Asks one handler, over a real service and a real call.
#ifndef VEXPROD_TESTS_HANDLERS_ASK_H
#define VEXPROD_TESTS_HANDLERS_ASK_H

#include "kservice.h"
#include "scoped.h"

#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <unistd.h>

using handler_function = int (*)(ks_io* io, int fd);

inline handler_function asked_handler = nullptr;

/// What the handler let escape; empty when it returned. The daemon's dispatch stops such errors as this does.
inline std::string escaped_error;

inline int run_asked_handler(const char* /*command*/, ks_io* io, int fd) {
    escaped_error.clear();
    try {
        asked_handler(io, fd);
    } catch (const std::exception& error) {
        escaped_error = error.what();
    }
    ks_io_free(io);
    return 0;
}

/// @return The reply's bytes; nothing when the connection ended without a reply.
inline std::optional<std::string> ask(handler_function handler, const std::string& request = "") {
    asked_handler = handler;
    const std::string name = "@/tmp/ask-" + std::to_string(getpid()) + ".sock";
    ks_handle* service = ks_create(name.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, run_asked_handler);
    ks_start(service);
    void* reply = nullptr;
    size_t size = 0;
    const unsigned code = ks_ez_call(name.c_str(), "asked", request.data(), request.size(), &reply, &size, 10, -1);
    const unique_heap<void> owner(reply);
    ks_free(service);
    if (code != 0) {
        return std::nullopt;
    }
    return std::string(static_cast<const char*>(reply), size);
}

#endif
