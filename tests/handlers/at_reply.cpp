#include "at_reply.h"

#include "kservice.h"

// The linker's names for the two ends of a wrapped function.
extern "C" void framework_ks_reply(ks_io* io) __asm__("__real_ks_reply");
extern "C" void watched_ks_reply(ks_io* io) __asm__("__wrap_ks_reply");

namespace {

const std::function<void()>* at_reply = nullptr;

} // namespace

extern "C" void watched_ks_reply(ks_io* io) {
    if (at_reply != nullptr) {
        (*at_reply)();
    }
    framework_ks_reply(io);
}

std::optional<std::string> ask_and_look(handler_function handler, const std::string& request,
                                        const std::function<void()>& look) {
    at_reply = &look; // the service's threads start later and end before
    auto reply = ask(handler, request);
    at_reply = nullptr;
    return reply;
}
