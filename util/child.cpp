#include "child.h"

#include "descriptor_limit.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <dirent.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

// Everything the child needs, made by the parent. Plain data: the child only reads it.
struct child_orders {
    const char* path;
    char* const* argv;
    char* const* envp;
    int in_fd; // -1 = leave as inherited
    int out_fd;
    int err_fd;
    bool restores_limit;
    struct rlimit limit;
};

constexpr int kFirstForbiddenFd = STDERR_FILENO + 1;

// A directory entry's name as a number, or -1. strtol() is not safe to call here.
int descriptor_number(const char* name) noexcept {
    int number = 0;
    for (; *name != '\0'; ++name) {
        if (*name < '0' || *name > '9') {
            return -1;
        }
        number = number * 10 + (*name - '0');
    }
    return number;
}

// Kernels before 5.9 have no close_range(): the directory of the open descriptors is read instead, by bare system calls
// because opendir() allocates. `spare_fd` goes first, so that a number is free for the directory even at the limit.
// Without "/proc" too, what the daemon opened is still close-on-exec.
void close_listed_descriptors(int spare_fd) noexcept {
    (void)::close(spare_fd);
    const int directory_fd = ::open("/proc/self/fd", O_RDONLY | O_CLOEXEC);
    alignas(dirent64) std::array<char, 2048> entries;
    long size_bytes{};
    while ((size_bytes = ::syscall(SYS_getdents64, directory_fd, entries.data(), entries.size())) > 0) {
        for (long offset = 0; offset < size_bytes;) {
            const auto* entry = reinterpret_cast<const dirent64*>(&entries[static_cast<std::size_t>(offset)]);
            const int fd = descriptor_number(entry->d_name);
            if (fd >= kFirstForbiddenFd && fd != directory_fd) {
                (void)::close(fd);
            }
            offset += entry->d_reclen;
        }
    }
}

// A handler of the daemon must not run in the child, which shares its memory, and an ignored signal (SIGPIPE) would
// stay ignored in the program. By the bare call: the C library's keeps two signals for itself, and in newer versions
// locks.
void reset_signals() noexcept {
    constexpr std::size_t kSetBytes = _NSIG / 8;
    const std::array<unsigned long, 8> default_action{}; // all zero is "default" in every layout of the kernel's record
    for (int signum = 1; signum < _NSIG; ++signum) {
        (void)::syscall(SYS_rt_sigaction, signum, default_action.data(), nullptr, kSetBytes); // SIGKILL, SIGSTOP refuse
    }
    const std::uint64_t none = 0;
    (void)::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, kSetBytes);
}

// Moves `source_fd`, which is 3 or above, onto a standard stream; dup2() leaves the target without close-on-exec.
bool place(int source_fd, int target_fd) noexcept {
    return ::dup2(source_fd, target_fd) == target_fd;
}

// The child's part. It runs on the parent's stack and in its memory while the parent's thread stands still: no
// allocation, no lock, no return. Not inlined, so that its locals do not share the parent's frame; not instrumented, as
// a frame that never returns would stay marked in the parent's shadow memory.
[[noreturn, gnu::noinline, gnu::no_sanitize_address, gnu::no_sanitize_undefined, gnu::no_sanitize_thread]] void
become_program(const child_orders& orders) noexcept {
    const bool placed = (orders.in_fd < 0 || place(orders.in_fd, STDIN_FILENO)) &&
                        place(orders.out_fd, STDOUT_FILENO) && place(orders.err_fd, STDERR_FILENO);
    if (placed) {
        if (::close_range(kFirstForbiddenFd, ~0U, 0) != 0) {
            close_listed_descriptors(orders.err_fd);
        }
        if (orders.restores_limit) {
            (void)::setrlimit(RLIMIT_NOFILE, &orders.limit); // lowers a soft limit, which is always allowed
        }
        reset_signals();
        // By number: where coverage is measured the compiler turns execve() into a call that first writes files, and
        // leaves the memory it shares with the parent as if the parent had written them.
        (void)::syscall(SYS_execve, orders.path, orders.argv, orders.envp);
    }
    // By number as well: the thread sanitizer's _exit() writes out the streams of the process, whose buffers the child
    // has as they were. The loop tells the compiler what the kernel knows.
    for (;;) {
        (void)::syscall(SYS_exit_group, 127);
    }
}

} // namespace

[[gnu::no_sanitize_address]] pid_t start_child(const char* path, char* const* argv, char* const* envp,
                                               const child_streams& streams) noexcept {
    child_orders orders = {path, argv, envp, streams.in.get(), streams.out.get(), streams.err.get(), false, {}};
    orders.restores_limit = original_descriptor_limit(&orders.limit);

    // Until the child has reset its handlers no signal may reach it; a mask is inherited.
    sigset_t all_signals;
    sigset_t old_mask;
    (void)sigfillset(&all_signals);
    (void)::pthread_sigmask(SIG_SETMASK, &all_signals, &old_mask); // cannot fail with these arguments
    // vfork() is what this file is about, and become_program() keeps its rules.
    const pid_t pid = ::vfork(); // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (pid == 0) {
        become_program(orders); // NOLINT(clang-analyzer-unix.Vfork): it does nothing but system calls
    }
    (void)::pthread_sigmask(SIG_SETMASK, &old_mask, nullptr); // leaves errno to vfork()
    return pid;
}

int wait_for_child(pid_t pid) noexcept {
    int status{};
    return TEMP_FAILURE_RETRY(::waitpid(pid, &status, 0)) < 0 ? -1 : status;
}
