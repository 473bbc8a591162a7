/* Preloaded into the daemon: what happens to its main thread at the very end, after main(). It faults, or waits at the
 * fifo whose path is in BROKEN_EXIT_GATE until the other end has been opened and closed. */
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

__attribute__((destructor)) static void at_exit(void) {
    const char* gate = getenv("BROKEN_EXIT_GATE");
    if (gate == NULL) {
        (void)raise(SIGSEGV);
        return;
    }
    const int end = open(gate, O_RDONLY | O_CLOEXEC);
    char byte = 0;
    while (read(end, &byte, 1) > 0) {
    }
    (void)close(end);
}
