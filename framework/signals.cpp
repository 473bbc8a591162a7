// Signal routing, and the crash reporter that writes a numbered stack to the kernel log.
#include "internal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

ks_signal_callback signal_handler[MAX_SIGNAL_SIZE] = {};

namespace {

constexpr int kFrames = 50;
constexpr int kOwnFrames = 2; // the reporter's and the signal trampoline's

void install(int signum, int flags, void (*handler)(int)) {
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = flags;
    action.sa_handler = handler; // shares its place with sa_sigaction; the callbacks take the number only
    (void)sigaction(signum, &action, nullptr);
}

} // namespace

void ks_signal(int signum, ks_signal_callback callback) {
    KS_REQUIRE(signum > 0 && signum < MAX_SIGNAL_SIZE, "signum > 0 && signum < MAX_SIGNAL_SIZE",
               "cannot handle signal number %d", signum);
    signal_handler[signum] = callback;
    install(signum, SA_SIGINFO, callback != nullptr ? ks_signal_handler : SIG_DFL);
}

void ks_signal_handler(int sig) {
    if (sig > 0 && sig < MAX_SIGNAL_SIZE && signal_handler[sig] != nullptr) {
        signal_handler[sig](sig);
    }
}

void ks_backtrace(void) {
    for (const int crash : {SIGABRT, SIGBUS, SIGFPE, SIGSEGV}) {
        signal_handler[crash] = _ks_backtrace;
    }
    for (int signum = 1; signum < MAX_SIGNAL_SIZE; ++signum) {
        if (signum != SIGKILL && signum != SIGSTOP && signal_handler[signum] != nullptr) {
            install(signum, SA_RESETHAND | SA_SIGINFO, ks_signal_handler);
        }
    }
}

void _ks_backtrace(int sig) { // NOLINT(bugprone-reserved-identifier): the callers' name for it
    const char* description = strsignal(sig);
    (void)fprintf(stderr, "%s\n", description);
    const int log_fd = open("/dev/kmsg", O_WRONLY | O_CLOEXEC);
    if (log_fd < 0) {
        _exit(1);
    }
    void* frames[kFrames];
    const int count = backtrace(frames, kFrames);
    char** symbols = count < 2 ? nullptr : backtrace_symbols(frames, count);
    if (symbols == nullptr) {
        _exit(1);
    }
    ks_io* report = ks_io_create();
    ks_io_printf(report, "%s (pid %d) %s:\n", description, (int)getpid(), program_invocation_name);
    for (int i = kOwnFrames; i < count && symbols[i] != nullptr; ++i) {
        ks_io_printf(report, "%2d. %s\n", i - kOwnFrames + 1, symbols[i]);
    }
    size_t size = 0;
    const char* text = static_cast<const char*>(ks_io_read(report, &size));
    for (size_t done = 0; done < size;) {
        const ssize_t written = write(log_fd, text + done, size - done);
        if (written < 1) {
            break;
        }
        done += (size_t)written;
    }
    ks_io_free(report);
    (void)fsync(log_fd);
    close(log_fd);
    _exit(1);
}
