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
    redirections files; // without an input in the first generation
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
            (void)std::fprintf(trace.get(), "stdin_file=%s\n", shown(run.files.stdin_file));
        }
        (void)std::fprintf(trace.get(), "stdout_file=%s\n", shown(run.files.stdout_file));
        (void)std::fprintf(trace.get(), "stderr_file=%s\n", shown(run.files.stderr_file));
        (void)std::fflush(trace.get()); // a trace is a diagnostic: its own failures are nobody's business
    }
    return trace;
}

int run_and_wait(const run_request& run) noexcept {
    try {
        const environment_snapshot environment = run.kind == generation::first
                                                     ? environment_snapshot::empty()
                                                     : environment_snapshot::own_without(kLibraryPathVariable);
        unique_file trace = open_trace(run);
        child_streams streams;
        if (!open_redirections(run.files, trace.get(), &streams)) {
            remove_outputs(run.files);
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
    return run_and_wait({generation::first, {nullptr, stdout_file, stderr_file}, trace_file, path, argv});
}

int lyn_vexprod_corvo_exec_v_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                                const char* trace_file, const char* path, char* const* argv) {
    return run_and_wait({generation::second, {stdin_file, stdout_file, stderr_file}, trace_file, path, argv});
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
