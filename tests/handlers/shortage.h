// A process that has almost no descriptors left, and a thread that cannot make temporary files.
#ifndef VEXPROD_TESTS_HANDLERS_SHORTAGE_H
#define VEXPROD_TESTS_HANDLERS_SHORTAGE_H

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

/// Leaves the process one descriptor until scope end: enough to write the log, too few for a pipe.
class descriptor_shortage {
public:
    descriptor_shortage() {
        while (next_descriptor() <= STDERR_FILENO) { // the runner would keep off these three
            (void)!open("/dev/null", O_RDWR);
        }
        (void)getrlimit(RLIMIT_NOFILE, &before_);
        const struct rlimit one_more = {static_cast<rlim_t>(next_descriptor() + 1), before_.rlim_max};
        (void)setrlimit(RLIMIT_NOFILE, &one_more);
    }
    descriptor_shortage(const descriptor_shortage&) = delete;
    descriptor_shortage& operator=(const descriptor_shortage&) = delete;
    ~descriptor_shortage() { (void)setrlimit(RLIMIT_NOFILE, &before_); }

private:
    static int next_descriptor() {
        const int next = dup(STDERR_FILENO);
        (void)close(next);
        return next;
    }
    struct rlimit before_ = {};
};

/// Runs `body` in a thread, and with it the programs that it starts, whose /tmp is an empty folder that nobody can
/// write to.
inline void run_without_temporary_files(const std::function<void()>& body) {
    std::thread([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0); // of this thread alone
        ASSERT_EQ(mount("none", "/tmp", "tmpfs", MS_RDONLY, nullptr), 0);
        body();
    }).join();
}

#endif
