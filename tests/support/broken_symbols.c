/* Preloaded into the daemon: a crash dump whose own steps run into what the crash left, as a damaged heap does. They
 * abort, or as the environment says:
 *
 * BROKEN_SYMBOLS_FAULT  they fault.
 * BROKEN_SYMBOLS_GATE   the path of a fifo: they wait until its other end has been opened and closed, and go on. The
 *                       milliseconds that the process's alarm has left then stand in the file of that path and
 *                       ".alarm". */
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

static void note_alarm(const char* gate) {
    char path[256];
    (void)snprintf(path, sizeof(path), "%s.alarm", gate);
    struct itimerval left = {{0, 0}, {0, 0}};
    (void)getitimer(ITIMER_REAL, &left);
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    (void)dprintf(file, "%ld", left.it_value.tv_sec * 1000L + left.it_value.tv_usec / 1000L);
    (void)close(file);
}

static void wait_at(const char* gate) {
    const int end = open(gate, O_RDONLY | O_CLOEXEC);
    char byte = 0;
    while (read(end, &byte, 1) > 0) {
    }
    (void)close(end);
}

char** backtrace_symbols(void* const* frames, int count) {
    const char* gate = getenv("BROKEN_SYMBOLS_GATE");
    if (gate != NULL) {
        note_alarm(gate);
        wait_at(gate);
        char** (*real)(void* const*, int) = NULL;
        *(void**)&real = dlsym(RTLD_NEXT, "backtrace_symbols");
        return real(frames, count);
    }
    if (getenv("BROKEN_SYMBOLS_FAULT") != NULL) {
        (void)raise(SIGSEGV);
    }
    abort();
}
