// A process that stands still.
#ifndef VEXPROD_TESTS_STOPPED_PROCESS_H
#define VEXPROD_TESTS_STOPPED_PROCESS_H

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>

/// Stops a child of this process, with all its threads, and lets it go on at the end. SIGSTOP alone does not wait: a
/// thread that sleeps can still do something before it stops.
class stopped_process {
public:
    explicit stopped_process(pid_t pid) : pid_(pid) {
        kill(pid_, SIGSTOP);
        siginfo_t info = {};
        EXPECT_EQ(waitid(P_PID, (id_t)pid_, &info, WSTOPPED | WNOWAIT), 0);
    }
    ~stopped_process() { kill(pid_, SIGCONT); }
    stopped_process(const stopped_process&) = delete;
    stopped_process& operator=(const stopped_process&) = delete;

private:
    pid_t pid_;
};

#endif
