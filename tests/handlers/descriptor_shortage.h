// A process that has almost no descriptors left.
#ifndef VEXPROD_TESTS_HANDLERS_DESCRIPTOR_SHORTAGE_H
#define VEXPROD_TESTS_HANDLERS_DESCRIPTOR_SHORTAGE_H

#include <fcntl.h>
#include <sys/resource.h>
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

#endif
