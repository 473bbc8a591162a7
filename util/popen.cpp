// The run-with-a-pipe calls and the list of their open streams.
#include "child.h"
#include "environment.h"
#include "read_fd.h"
#include "redirection.h"
#include "runner.h"
#include "scoped.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <utility>

namespace {

// One stream that is not closed yet.
struct open_pipe {
    open_pipe* next; // older; null = the oldest
    FILE* stream;    // the caller's
    pid_t pid;       // the child to wait for
};

// Newest first. The nodes in the list are owned by it. It is never torn down: at exit other threads may still be in
// their calls. A child needs no walk over it to close its brothers' pipes: it closes everything above 2, and all
// descriptors of the runner are close-on-exec besides.
open_pipe* pidlist = nullptr;
std::mutex pidlist_mutex;

void remember(std::unique_ptr<open_pipe> node) {
    const std::lock_guard lock(pidlist_mutex);
    node->next = pidlist;
    pidlist = node.release();
}

// The pointer that leads to the stream's node, or the last one, which is null. Only under the mutex.
open_pipe** find(const FILE* stream) {
    open_pipe** link = &pidlist;
    while (*link != nullptr && (*link)->stream != stream) {
        link = &(*link)->next;
    }
    return link;
}

// Takes the stream's node out of the list. @return Nothing when the stream is not in it.
std::unique_ptr<open_pipe> forget(const FILE* stream) {
    const std::lock_guard lock(pidlist_mutex);
    open_pipe** const link = find(stream);
    std::unique_ptr<open_pipe> node(*link);
    if (node) {
        *link = node->next;
    }
    return node;
}

// The child of a stream in the list, or -1. It is there to be waited for, so its id means no other process, until its
// stream is closed.
pid_t child_of(const FILE* stream) {
    const std::lock_guard lock(pidlist_mutex);
    const open_pipe* node = *find(stream);
    return node == nullptr ? -1 : node->pid;
}

// Whether the child has ended, or was collected by the kernel. Its status stays, for the call that waits.
bool has_ended(pid_t pid) noexcept {
    siginfo_t end = {};
    return ::waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOHANG | WNOWAIT) != 0 || end.si_pid == pid;
}

// How much can be read from a pipe without waiting.
std::size_t bytes_waiting(int fd) noexcept {
    int count{};
    return ::ioctl(fd, FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
}

// One call, as its caller made it. All pointers are borrowed.
struct pipe_request {
    redirections files; // without an output when the caller reads, without an input when it writes
    const char* mode;   // "r" or "w"
    const char* path;
    char* const* argv;

    [[nodiscard]] bool caller_reads() const { return mode[0] == 'r'; }
};

bool valid_mode(const char* mode) {
    return mode != nullptr && (std::strcmp(mode, "r") == 0 || std::strcmp(mode, "w") == 0);
}

// Makes the pipe: one end for the caller, the other in its place among the child's streams.
bool open_pipe_ends(const pipe_request& request, unique_fd* ret_caller_end, child_streams* ret_streams) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    unique_fd read_end(ends[0]);
    unique_fd write_end(ends[1]);
    read_end = above_standard_streams(std::move(read_end));
    write_end = above_standard_streams(std::move(write_end));
    if (!read_end.ok() || !write_end.ok()) {
        return false;
    }
    *ret_caller_end = std::move(request.caller_reads() ? read_end : write_end);
    (request.caller_reads() ? ret_streams->out : ret_streams->in) =
        std::move(request.caller_reads() ? write_end : read_end);
    return true;
}

void remove_opened_outputs(const redirections& files, const child_streams& streams) noexcept {
    remove_outputs(
        {nullptr, streams.out.ok() ? files.stdout_file : nullptr, streams.err.ok() ? files.stderr_file : nullptr});
}

// Everything that can fail or allocate comes before the child, so that no child is ever left without its stream.
FILE* start_with_pipe(const pipe_request& request) noexcept {
    try {
        const environment_snapshot environment = environment_snapshot::own_without(kLibraryPathVariable);
        auto node = std::make_unique<open_pipe>();
        child_streams streams;
        unique_fd caller_end;
        if (!open_pipe_ends(request, &caller_end, &streams)) {
            return nullptr;
        }
        const bool opened = open_redirections(request.files, nullptr, &streams);
        unique_file stream(opened ? ::fdopen(caller_end.get(), request.mode) : nullptr);
        if (!stream) {
            remove_opened_outputs(request.files, streams);
            return nullptr;
        }
        (void)caller_end.release(); // the stream closes it now
        node->pid = start_child(request.path, request.argv, environment.envp(), streams);
        if (node->pid < 0) {
            return nullptr;
        }
        node->stream = stream.get();
        remember(std::move(node));
        return stream.release();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

} // namespace

FILE* lyn_vexprod_corvo_popen_v_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                                   const char* mode, const char* path, char* const* argv) {
    if (!valid_mode(mode)) {
        errno = EINVAL;
        return nullptr;
    }
    const bool caller_reads = mode[0] == 'r';
    return start_with_pipe(
        {{caller_reads ? stdin_file : nullptr, caller_reads ? nullptr : stdout_file, stderr_file}, mode, path, argv});
}

FILE* lyn_vexprod_corvo_popen_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                                 const char* mode, const char* path, ...) {
    std::va_list arguments;
    va_start(arguments, path);
    const auto argv = collect_arguments(path, arguments);
    va_end(arguments);
    if (!argv) {
        errno = ENOMEM;
        return nullptr;
    }
    return lyn_vexprod_corvo_popen_v_v2(stdin_file, stdout_file, stderr_file, mode, path, argv->data());
}

std::string read_output(FILE* stream, std::size_t limit_bytes) {
    constexpr int kLookAgainMs = 100;
    const int fd = ::fileno(stream);
    const pid_t pid = child_of(stream);
    // Readable once the child has ended. Kernels before 5.3 have no such descriptor, and a process at its limit gets
    // none: then the child is looked at now and again.
    const unique_fd end = above_standard_streams(unique_fd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))));
    std::string text;
    while (text.size() < limit_bytes) {
        std::array<pollfd, 2> events = {{{fd, POLLIN, {}}, {end.get(), POLLIN, {}}}}; // poll() passes over a -1
        (void)::poll(events.data(), events.size(), end.ok() ? -1 : kLookAgainMs);
        const bool ended = end.ok() ? events[1].revents != 0 : has_ended(pid);
        if (!ended && events[0].revents == 0) {
            continue; // a signal, or time to look again
        }
        // Asked after the child's end is known: all its output is among these bytes. Nobody else reads them, so reading
        // them never blocks; what orphaned descendants print later is left out.
        const std::string piece = read_to_end(fd, std::min(bytes_waiting(fd), limit_bytes - text.size()));
        text += piece;
        if (ended || piece.empty()) { // empty: the end of the output, or an error
            break;
        }
    }
    return text;
}

int lyn_vexprod_corvo_pclose(FILE* stream) {
    const std::unique_ptr<open_pipe> node = forget(stream);
    if (!node) {
        return -1;
    }
    (void)std::fclose(node->stream); // ends the child's input or output; what it makes of that is in its status
    return wait_for_child(node->pid);
}
