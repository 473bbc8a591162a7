// Child processes: run a host tool and wait, or communicate with it through a pipe. No shell is ever involved, so no
// argument is subject to expansion.
//
// Run and wait:
//
//     int status = lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/bin/mv", from, to, nullptr);
//     if (status == 0) ...                         // ran, and exited with 0
//     else if (status == 32512) ...                // could not be executed (127 in the exit-code bits)
//
// Run with a pipe:
//
//     unique_pipe tool(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", "/sbin/tool", "--list", nullptr));
//     if (tool) text = read_output(tool.get());    // the child is waited for at scope end
//
// Two generations of the calls, kept separate on purpose; callers choose one per tool:
// - `exec` and `exec_v`: the child's environment is empty, its standard input is the daemon's;
// - the `_v2` calls: the child's environment is the daemon's without LD_LIBRARY_PATH, its standard input is a file or
//   the daemon's.
// In the variadic calls argv[0] is the path's base name and a null pointer ends the arguments; in the vector calls
// (`_v`) the caller's NULL-terminated vector is passed as it stands, argv[0] included.
//
// Redirections. Every name may be null.
// - stdin_file:   opened read-only; null = standard input as inherited.
// - stdout_file, stderr_file: opened read-write, created 0774, truncated; null = "/dev/null". If both are the same
//   text they share one open file and offset: both streams' output is in the order in which it was written.
// - trace_file:   appended to before the child starts: the command, the redirections, and why one could not be opened.
//   Ignored if it cannot be opened itself.
//
// Descriptors. The runner closes what it opens, in every case. A child has exactly 0, 1 and 2, whatever the process
// holds open, even if the process itself runs with any of the three closed; no signal is ignored or blocked in it; and
// it has the descriptor limit that the daemon was started with.
//
// Status. The run-and-wait calls and pclose return the raw wait status: test it with WIFEXITED() etc., or compare it
// with 0. -1 = nothing was run: a file could not be opened (the named output files are then removed), or memory ran
// out; or there was no child to wait for. A program that cannot be executed gives 32512.
//
// Threads. Any thread may call anything here; a call waits only for its own child. The child needs no lock that
// another thread may hold, and the environment may be changed meanwhile through environment.h.
#ifndef VEXPROD_UTIL_RUNNER_H
#define VEXPROD_UTIL_RUNNER_H

#include <cstddef>
#include <cstdio>
#include <limits>
#include <string>

/// Runs `path` and waits. Empty environment, inherited standard input. Arguments up to a null pointer.
/// @return Wait status or -1, see above. KEPT: if no child can be made (fork fails) the call returns 0, which callers
///         cannot tell from success. The same holds for the three calls below.
int lyn_vexprod_corvo_exec(const char* stdout_file, const char* stderr_file, const char* trace_file, const char* path,
                           ...) __attribute__((sentinel));

/// The same with the caller's vector.
/// @param argv  NULL-terminated, borrowed.
int lyn_vexprod_corvo_exec_v(const char* stdout_file, const char* stderr_file, const char* trace_file, const char* path,
                             char* const* argv);

/// Runs `path` and waits. The daemon's environment without LD_LIBRARY_PATH. Arguments up to a null pointer.
int lyn_vexprod_corvo_exec_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                              const char* trace_file, const char* path, ...) __attribute__((sentinel));

/// The same with the caller's vector.
int lyn_vexprod_corvo_exec_v_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                                const char* trace_file, const char* path, char* const* argv);

/// Starts `path` with a pipe to the caller. The daemon's environment without LD_LIBRARY_PATH. Arguments up to a null
/// pointer.
/// @param mode  "r": the caller reads the child's standard output; `stdout_file` is ignored.
///              "w": the caller writes the child's standard input; `stdin_file` is ignored.
/// @return The stream, to be closed only with lyn_vexprod_corvo_pclose(): fclose() would leave a zombie. Null and errno
///         if nothing was started (EINVAL: any other mode); output files that were opened are then removed, unless no
///         child could be made.
FILE* lyn_vexprod_corvo_popen_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                                 const char* mode, const char* path, ...) __attribute__((sentinel));

/// The same with the caller's vector.
FILE* lyn_vexprod_corvo_popen_v_v2(const char* stdin_file, const char* stdout_file, const char* stderr_file,
                                   const char* mode, const char* path, char* const* argv);

/// Reads the output of such a stream's child, in mode "r": to end of file or, once the child itself has ended, what is
/// available by then. An orphaned descendant may hold the output open for ever, so it is not waited for; what it prints
/// later is lost.
/// @param stream       Not read by anybody else, nor by stdio before: data in its buffer is skipped.
/// @param limit_bytes  Also ends the reading.
/// @return What was read; an error after some bytes ends the text there. Throws std::bad_alloc.
std::string read_output(FILE* stream, std::size_t limit_bytes = std::numeric_limits<std::size_t>::max());

/// Closes a stream of the popen calls and waits for its child.
/// @return Wait status; -1 if there is no child to wait for, or for a foreign stream, which stays open.
int lyn_vexprod_corvo_pclose(FILE* stream);

#endif
