// A look at the daemon at the moment when it replies: what a handler must have released, it has released by now. The
// linker sends the handlers' ks_reply() through here (see CMakeLists.txt), and it goes on to the framework's own.
#ifndef VEXPROD_TESTS_HANDLERS_AT_REPLY_H
#define VEXPROD_TESTS_HANDLERS_AT_REPLY_H

#include "ask.h"

#include <functional>
#include <optional>
#include <string>

/// ask(), with `look` called in the handler's thread just before its caller is told of the reply. No reply, no look.
std::optional<std::string> ask_and_look(handler_function handler, const std::string& request,
                                        const std::function<void()>& look);

#endif
