// Signal routing, and the crash reporter that writes a numbered stack to the kernel log.
//
// The reporter runs in a signal handler of a process that may have just corrupted its heap or died inside malloc(), so
// it takes nothing from the heap and no lock of the C library: ks_backtrace() makes the first backtrace() call, which
// loads the unwinder; symbol texts go straight from the loader's tables into a memory file (backtrace_symbols_fd(3)),
// which is read back line by line; lines are put together in buffers on the stack, and the report behind the texts. A
// ks_io for it would abort when memory is short, and the report would be of that. (add_frame() puts back what only
// backtrace_symbols(3) writes.) What is knowingly left: the unwinder
// reads a stack that may be damaged, and the loader's tables are read under its lock, which a crash inside dlopen()
// itself would hold. A second fault then ends the process at once, because the disposition resets itself.
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

ks_signal_callback signal_handler[MAX_SIGNAL_SIZE] = {};

namespace {

constexpr int kFrames = 50;
constexpr int kOwnFrames = 2; // the reporter's and ks_signal_handler()'s
constexpr int kCrashSignals[] = {SIGABRT, SIGBUS, SIGFPE, SIGSEGV};
constexpr size_t kLineSize = 4096;  // on the stack of the thread that crashed
constexpr size_t kRecordSize = 960; // what a record of the kernel log surely holds

void install(int signum, int flags, void (*handler)(int)) {
    struct sigaction action = {}; // with an empty mask
    action.sa_flags = flags;
    action.sa_handler = handler; // in the place of sa_sigaction: the callbacks take the number only
    (void)sigaction(signum, &action, nullptr);
}

// A line under construction; what does not fit is cut.
struct line_buffer {
    char text[kLineSize];
    size_t size = 0;

    void add(const char* more, size_t length) {
        const size_t fits = std::min(length, sizeof(text) - size);
        memcpy(text + size, more, fits);
        size += fits;
    }
    void add(const char* more) { add(more, strlen(more)); }

    // Ends the line with a newline, for which the last character makes room, and writes it.
    void end(int fd) {
        size -= size == sizeof(text) ? 1 : 0;
        add("\n", 1);
        [[maybe_unused]] const ssize_t written = write(fd, text, size); // the other lines matter none the less
        size = 0;
    }

    void add_number(unsigned value) {
        if (value >= 10) {
            add_number(value / 10);
        }
        const char digit = (char)('0' + value % 10);
        add(&digit, 1);
    }
};

// Adds the text of a frame, "FILE(SYMBOL+0xOFFSET) [ADDRESS]". It comes without the blank, with an offset of "0x0"
// where it should read "0", and without the parentheses when a program that is not relocated has no name for the place.
// Of an address in no file there is the last part alone.
void add_frame(line_buffer* line, const char* text, size_t length) {
    const void* bracket = memrchr(text, '[', length);
    const size_t place = bracket != nullptr ? (size_t)(static_cast<const char*>(bracket) - text) : length;
    if (place > 0) {
        constexpr std::string_view kNoOffset = "+0x0)";
        const std::string_view file_and_symbol(text, place);
        if (file_and_symbol.ends_with(kNoOffset)) {
            line->add(text, place - kNoOffset.size());
            line->add("+0)");
        } else {
            line->add(text, place);
            line->add(file_and_symbol.ends_with(')') ? "" : "()");
        }
        line->add(" ");
    }
    line->add(text + place, length - place);
}

// Adds "%2d. %s\n" of each frame after our own to the memory file, whose first `size` bytes are a symbol text a line.
void report_frames(int fd, off_t size) {
    line_buffer frame;
    unsigned number = 1;
    char next = '\0';
    for (off_t at = 0; at < size && pread(fd, &next, 1, at) == 1; ++at) {
        if (next != '\n') {
            frame.add(&next, 1);
            continue;
        }
        line_buffer line;
        line.add(number < 10 ? " " : "");
        line.add_number(number++);
        line.add(". ");
        add_frame(&line, frame.text, frame.size);
        line.end(fd);
        frame.size = 0;
    }
}

void add_description(line_buffer* line, int sig) {
    const char* known = sigdescr_np(sig);
    if (known != nullptr) {
        line->add(known);
    } else {
        line->add("Unknown signal ");
        line->add_number((unsigned)sig);
    }
}

// The kernel takes one record a write, of at most about a thousand bytes, and a few records in five seconds: as many
// whole lines at a time as a record holds.
void copy_lines(int fd, off_t at, int log_fd) {
    char text[kRecordSize];
    for (ssize_t size = 0; (size = pread(fd, text, sizeof(text), at)) > 0;) {
        const void* end = memrchr(text, '\n', (size_t)size);
        const size_t length = end != nullptr ? (size_t)(static_cast<const char*>(end) - text) + 1 : (size_t)size;
        const ssize_t written = write(log_fd, text, length);
        if (written < 1) {
            return;
        }
        at += written;
    }
}

} // namespace

void ks_signal(int signum, ks_signal_callback callback) {
    KS_REQUIRE(signum > 0 && signum < MAX_SIGNAL_SIZE, "signum > 0 && signum < MAX_SIGNAL_SIZE",
               "cannot handle signal number %d", signum);
    __atomic_store_n(&signal_handler[signum], callback, __ATOMIC_RELEASE);
    install(signum, SA_SIGINFO, callback != nullptr ? ks_signal_handler : SIG_DFL);
}

// Its frame is one of the two that a report leaves out, so the call below must not become a jump.
__attribute__((noinline, optimize("no-optimize-sibling-calls"))) void ks_signal_handler(int sig) {
    if (sig <= 0 || sig >= MAX_SIGNAL_SIZE) {
        return;
    }
    const ks_signal_callback callback = __atomic_load_n(&signal_handler[sig], __ATOMIC_ACQUIRE);
    if (callback != nullptr) {
        const int saved = errno;
        callback(sig);
        errno = saved; // the code that the signal interrupted may be about to look at it
    }
}

void ks_backtrace(void) {
    void* frame = nullptr;
    (void)backtrace(&frame, 1);
    for (const int crash : kCrashSignals) {
        __atomic_store_n(&signal_handler[crash], &_ks_backtrace, __ATOMIC_RELEASE);
    }
    int signum = 0;
    for (const ks_signal_callback& callback : signal_handler) {
        if (__atomic_load_n(&callback, __ATOMIC_ACQUIRE) != nullptr) {
            install(signum, SA_RESETHAND | SA_SIGINFO, ks_signal_handler); // the kernel refuses SIGKILL and SIGSTOP
        }
        ++signum;
    }
}

// NOLINTNEXTLINE(clang-diagnostic-reserved-identifier): the callers' name for it
__attribute__((noinline)) void _ks_backtrace(int sig) {
    line_buffer line;
    add_description(&line, sig);
    line.end(STDERR_FILENO);
    const int log_fd = ks::above_stdio(open("/dev/kmsg", O_WRONLY | O_CLOEXEC));
    if (log_fd == -1) {
        _exit(1);
    }
    void* frames[kFrames];
    const int count = backtrace(frames, kFrames);
    const int report_fd = ks::above_stdio(memfd_create("kservice-report", MFD_CLOEXEC));
    if (count < kOwnFrames || report_fd == -1) {
        _exit(1);
    }
    backtrace_symbols_fd(frames + kOwnFrames, count - kOwnFrames, report_fd);
    const off_t symbols_size = lseek(report_fd, 0, SEEK_CUR);
    add_description(&line, sig);
    line.add(" (pid ");
    line.add_number((unsigned)getpid());
    line.add(") ");
    line.add(program_invocation_name);
    line.add(":");
    line.end(report_fd);
    report_frames(report_fd, symbols_size);
    copy_lines(report_fd, symbols_size, log_fd);
    (void)fsync(log_fd);
    _exit(1);
}
