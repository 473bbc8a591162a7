// The run-and-wait calls. All four are one procedure, run_and_wait(), that differs by generation.
#include "runner.h"

#include "child.h"
#include "environment.h"
#include "redirection.h"
#include "scoped.h"

#include <cstdarg>
#include <new>

namespace {

enum class generation { first, second };

// One call, as its caller made it. All pointers are borrowed; the file names may be null.
struct run_request {
    generation kind;
    const char* stdin_file; // null in the first generation
    const char* stdout_file;
    const char* stderr_file;
    const char* trace_file;
    const char* path;
    char* const* argv;
};

// A null text as the C library prints it.
const char* shown(const char* text) {
    return text == nullptr ? "(null)" : text;
}

// Opens the trace file and writes its header. @return Nothing when no trace is wanted, or it cannot be opened.
unique_file open_trace(const run_request& run) {
    unique_file trace(run.trace_file == nullptr ? nullptr : std::fopen(run.trace_file, "a+e"));
    if (trace) {
        (void)std::fprintf(trace.get(), "cmd=%s\n", shown(run.path));
        if (run.kind == generation::second) {
            (void)std::fprintf(trace.get(), "stdin_file=%s\n", shown(run.stdin_file));
        }
        (void)std::fprintf(trace.get(), "stdout_file=%s\n", shown(run.stdout_file));
        (void)std::fprintf(trace.get(), "stderr_file=%s\n", shown(run.stderr_file));
        (void)std::fflush(trace.get()); // a trace is a diagnostic: its own failures are nobody's business
    }
    return trace;
}

bool trace_failed_output(FILE* trace, const char* file, int fd) {
    if (trace != nullptr) {
        (void)std::fprintf(trace, "open %s failed: %d\n", file == nullptr ? kNullDevice : file, fd);
    }
    return false;
}

// Opens the three redirections. @return False when one cannot be had; the trace then says which.
bool open_streams(const run_request& run, FILE* trace, child_streams* ret_streams) {
    ret_streams->out = open_output(run.stdout_file);
    if (!ret_streams->out.ok()) {
        return trace_failed_output(trace, run.stdout_file, ret_streams->out.get());
    }
    const bool shared = same_file_name(run.stdout_file, run.stderr_file);
    if (shared && trace != nullptr) {
        (void)std::fprintf(trace, "pipe stdout and stderr to the same file %s\n", run.stderr_file);
    }
    ret_streams->err = open_error(run.stderr_file, shared ? ret_streams->out.get() : -1);
    if (!ret_streams->err.ok()) {
        return trace_failed_output(trace, run.stderr_file, ret_streams->err.get());
    }
    if (run.stdin_file != nullptr) {
        ret_streams->in = open_input(run.stdin_file);
        if (!ret_streams->in.ok()) {
            if (trace != nullptr) {
                (void)std::fprintf(trace, "open %s failed\n", run.stdin_file);
            }
            return false;
        }
    }
    return true;
}

int run_and_wait(const run_request& run) noexcept {
    try {
        const environment_snapshot environment = run.kind == generation::first
                                                     ? environment_snapshot::empty()
                                                     : environment_snapshot::own_without(kLibraryPathVariable);
        unique_file trace = open_trace(run);
        child_streams streams;
        if (!open_streams(run, trace.get(), &streams)) {
            remove_output(run.stdout_file);
            remove_output(run.stderr_file);
            return -1;
        }
        trace.reset(); // the child's own output may go to the same file, after the header
        const pid_t pid = start_child(run.path, run.argv, environment.envp(), streams);
        // KEPT: a child that cannot be made looks like a success.
        return pid < 0 ? 0 : wait_for_child(pid);
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

} // namespace

int lyn_vexprod_corvo_exec_v(const char* stdout_file, const char* stderr_file, const char* trace_file, const char* path,
                             char* const* argv) {
    return run_and_wait({generation::first, nullptr, stdout_file, stderr_file, trace_file, path, argv});
}

int lyn_vexprod_corvo_exec_v_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                                const char* trace_file, const char* path, char* const* argv) {
    return run_and_wait({generation::second, stdin_file, stdout_file, stderr_file, trace_file, path, argv});
}

int lyn_vexprod_corvo_exec(const char* stdout_file, const char* stderr_file, const char* trace_file, const char* path,
                           ...) {
    std::va_list arguments;
    va_start(arguments, path);
    const auto argv = collect_arguments(path, arguments);
    va_end(arguments);
    return argv ? lyn_vexprod_corvo_exec_v(stdout_file, stderr_file, trace_file, path, argv->data()) : -1;
}

int lyn_vexprod_corvo_exec_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                              const char* trace_file, const char* path, ...) {
    std::va_list arguments;
    va_start(arguments, path);
    const auto argv = collect_arguments(path, arguments);
    va_end(arguments);
    return argv ? lyn_vexprod_corvo_exec_v_v2(stdin_file, stdout_file, stderr_file, trace_file, path, argv->data())
                : -1;
}
