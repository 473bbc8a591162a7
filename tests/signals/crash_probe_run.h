// One run of the crash probe, for the tests of the crash reporter.
#ifndef VEXPROD_TESTS_CRASH_PROBE_RUN_H
#define VEXPROD_TESTS_CRASH_PROBE_RUN_H

#include "test_files.h"

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

struct crash {
    int status;
    pid_t pid;
    std::string standard_error;
};

/// Runs the probe to its end, which an alarm brings about if nothing else does.
/// @param name     What the probe is called.
/// @param prepare  Runs in the new process before the probe.
/// @param program  The probe.
inline crash run_crash_probe(int signal = SIGSEGV, int depth = 0, const std::string& name = "crash_probe",
                             const std::function<void()>& prepare = nullptr, const char* program = CRASH_PROBE) {
    const test_folder folder;
    const std::string socket = folder / "crash.sock";
    const std::string err = folder / "stderr";
    const std::string number = std::to_string(signal);
    const std::string calls = std::to_string(depth);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        alarm(10);
        if (prepare) {
            prepare();
        }
        execl(program, name.c_str(), socket.c_str(), number.c_str(), calls.c_str(), nullptr);
        _exit(126);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return {status, pid, read_file(err)};
}

#endif
