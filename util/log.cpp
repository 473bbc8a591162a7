#include "log.h"

#include "local_time.h"
#include "runner.h"
#include "scoped.h"
#include "unique_fd.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>

char cLogDirPath[256];
char cLogFilePath[512];

namespace {

constexpr off_t kLargestUnrotatedBytes = 0x7FFFF;
constexpr std::size_t kLineSize = 2048; // with its NUL, were it written
constexpr std::size_t kPrefixRoom = 64;
constexpr int kStampLength = 20; // of ctime's 24 characters: without the year, but with the blank before it

// What stands before the message, "[<pid>] [<stamp>] ". ctime() looks at TZ and the host's zone file every time, which
// costs more than all the rest of a line, so each thread keeps the text of the second that it last asked for.
struct line_prefix {
    std::time_t second;
    pid_t pid; // a forked process has another
    std::size_t length;
    char text[kPrefixRoom];
};

// The process's id, asked for once: another system call a line would make it 6 to 8 % dearer (bench/bench_log.cpp). A
// child of fork(2) has another one, and so has the daemon once it has left the terminal.
pid_t own_pid() {
    static std::atomic<pid_t> known = 0;
    static const bool forgotten_by_children = ::pthread_atfork(nullptr, nullptr, [] { known = 0; }) == 0;
    pid_t pid = known.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = ::getpid();
        if (forgotten_by_children) {
            known.store(pid, std::memory_order_relaxed);
        }
    }
    return pid;
}

const line_prefix& current_prefix() {
    thread_local line_prefix cached = {}; // of no process
    struct timeval now = {};
    (void)::gettimeofday(&now, nullptr); // cannot fail with these arguments
    const pid_t pid = own_pid();
    if (now.tv_sec != cached.second || pid != cached.pid) {
        const std::tm local = local_time(now.tv_sec);
        std::array<char, 64> whole{};
        const char* stamp = ::asctime_r(&local, whole.data());
        cached.length = static_cast<std::size_t>(std::snprintf(cached.text, sizeof cached.text, "[%05d] [%.*s] ", pid,
                                                               kStampLength, stamp == nullptr ? "" : stamp));
        cached.second = now.tv_sec;
        cached.pid = pid;
    }
    return cached;
}

// Appends one line to `file`. The message is formatted first and where it will stand in the line, with room for the
// prefix before it: copying it would cost as much as reading the clock.
void write_line(const char* file, const char* fmt, std::va_list arguments) {
    const int saved_errno = errno;
    std::array<char, kPrefixRoom + kLineSize> buffer;
    char* const message = buffer.data() + kPrefixRoom;
    *message = '\0';
    (void)std::vsnprintf(message, kLineSize, fmt, arguments);
    log_file_rotation(file);
    const line_prefix& prefix = current_prefix();
    const unique_fd log =
        above_standard_streams(unique_fd(::open(file, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666)));
    if (log.ok()) {
        char* const line = message - prefix.length;
        std::memcpy(line, prefix.text, prefix.length);
        std::size_t length = prefix.length + ::strnlen(message, kLineSize);
        if (length < kLineSize - 1) {
            line[length++] = '\n';
        } else {
            length = kLineSize - 1; // a longer line loses its end, the newline first
        }
        // One write, so that no other line comes in between; one that fails is lost like one that cannot be opened.
        [[maybe_unused]] const ssize_t written = ::write(log.get(), line, length);
    }
    errno = saved_errno;
}

} // namespace

void log_set_dir(const char* dir) {
    struct stat status = {};
    if (::stat(dir, &status) != 0) {
        const int result = ::mkdir(dir, 0775);
        if (result != 0) {
            (void)std::printf("Error mkdir [%s] failed ret=%d\n", dir, result);
            (void)std::fflush(stdout); // standard output may become a caller's before the buffer is full
        }
    }
    (void)std::snprintf(cLogDirPath, sizeof cLogDirPath, "%s", dir);
    (void)std::snprintf(cLogFilePath, sizeof cLogFilePath, "%s/%s", cLogDirPath, kLogFileName);
    (void)current_prefix(); // the first reading of the time zone, while there is one thread
}

void dbg_printf2(const char* fmt, ...) {
    if (cLogFilePath[0] == '\0') {
        (void)std::fputs("Log file path not set. Please call log_set_dir() first.\n", stderr);
        return;
    }
    std::va_list arguments;
    va_start(arguments, fmt);
    write_line(cLogFilePath, fmt, arguments);
    va_end(arguments);
}

void dbg_printf(const char* file, const char* fmt, ...) {
    std::va_list arguments;
    va_start(arguments, fmt);
    write_line(file, fmt, arguments);
    va_end(arguments);
}

void log_file_rotation(const char* file) {
    struct stat status = {};
    if (::stat(file, &status) != 0 || status.st_size <= kLargestUnrotatedBytes) {
        return;
    }
    // By the host's tool, never rename(2). Two threads may both come here: the second moves the new file or finds none.
    std::array<char, 256> backup{};
    (void)std::snprintf(backup.data(), backup.size(), "%s.bak", file);
    (void)lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/bin/mv", file, backup.data(), nullptr);
}

void vexprod_debug_backtrace_dump() {
    std::array<void*, 100> frames{};
    const int count = ::backtrace(frames.data(), static_cast<int>(frames.size()));
    const unique_heap<char*> names(::backtrace_symbols(frames.data(), count));
    if (names) {
        for (int i = 0; i < count; ++i) {
            dbg_printf2("[%s][%d] %s", __func__, __LINE__, names.get()[i]);
        }
    }
    dbg_printf2("[%s][%d]==========================", __func__, __LINE__);
    dbg_printf2("[%s][%d]%s", __func__, __LINE__, program_invocation_name);
}
