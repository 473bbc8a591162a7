/* Coverage builds only: write the counters also where a process ends without running its exit handlers. Forked workers
 * end by _exit(), contract violations by abort(), a crashed daemon by raise(). The linker sends those calls here. */
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

void __gcov_dump(void);
_Noreturn void __real__exit(int status);
_Noreturn void __wrap__exit(int status);
_Noreturn void __real_abort(void);
_Noreturn void __wrap_abort(void);
int __real_raise(int signal);
int __wrap_raise(int signal);

void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}

void __wrap_abort(void) {
    __gcov_dump();
    __real_abort();
}

int __wrap_raise(int signal) {
    if (signal == SIGKILL) {
        __gcov_dump();
    }
    return __real_raise(signal);
}
