/* Preloaded into the daemon: a crash dump whose own steps run into what the crash left, as a damaged heap does. They
 * fault if BROKEN_SYMBOLS_FAULT is set, else they abort. */
#include <execinfo.h>
#include <signal.h>
#include <stdlib.h>

char** backtrace_symbols(void* const* frames, int count) {
    (void)frames;
    (void)count;
    if (getenv("BROKEN_SYMBOLS_FAULT") != NULL) {
        (void)raise(SIGSEGV);
    }
    abort();
}
