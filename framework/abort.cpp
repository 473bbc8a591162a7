#include "internal.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace ks {

void abort_with(const char* function, const char* text, const char* fmt, ...) {
    char message[512];
    va_list arguments;
    va_start(arguments, fmt);
    (void)vsnprintf(message, sizeof(message), fmt, arguments);
    va_end(arguments);

    // One write, past stdio: the line stays whole beside other threads' output, and a lock that another thread holds
    // cannot keep us alive.
    char line[2048];
    (void)snprintf(line, sizeof(line), "[ABORT] @%s() %s: `%s'\n", function, message, text);
    [[maybe_unused]] const ssize_t told = write(STDERR_FILENO, line, strlen(line)); // nobody else is left to tell
    abort();
}

} // namespace ks
