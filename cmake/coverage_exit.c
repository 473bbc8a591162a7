/* Coverage builds only: write the counters also where a process ends without running its exit handlers. Forked workers
 * end by _exit(), contract violations by abort(), a crashed daemon by raise(). The linker sends those calls here. */
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
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

/* A process that aborts may have used up what writing takes; and what it has said on standard error stays its last
 * word, whatever the writing has to complain of. */
static int make_room(void) {
    const int limits[] = {RLIMIT_NOFILE, RLIMIT_AS, RLIMIT_FSIZE};
    for (size_t i = 0; i < sizeof limits / sizeof *limits; ++i) {
        struct rlimit limit = {0};
        if (getrlimit((__rlimit_resource_t)limits[i], &limit) == 0) {
            limit.rlim_cur = limit.rlim_max;
            (void)setrlimit((__rlimit_resource_t)limits[i], &limit);
        }
    }
    const int standard_error = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) {
        (void)dup2(nowhere, STDERR_FILENO);
    }
    return standard_error;
}

void __wrap_abort(void) {
    const int standard_error = make_room();
    __gcov_dump();
    (void)dup2(standard_error, STDERR_FILENO); /* a handler of SIGABRT may still write there */
    __real_abort();
}

int __wrap_raise(int signal) {
    if (signal == SIGKILL) {
        __gcov_dump();
    }
    return __real_raise(signal);
}
