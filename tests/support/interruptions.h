// Signals that interrupt whatever call this process waits in.
#ifndef VEXPROD_TESTS_INTERRUPTIONS_H
#define VEXPROD_TESTS_INTERRUPTIONS_H

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

/// Sent by a shell that this process starts, one after another, each when the last has been handled: that they meet the
/// waiting call does not depend on who is faster. One in a process, which should be one of its own.
class interruptions {
public:
    /// @param fifo  A path where nothing is yet, without blanks.
    explicit interruptions(std::string fifo) : fifo_(std::move(fifo)) {
        EXPECT_EQ(::mkfifo(fifo_.c_str(), 0600), 0);
        answers_ = ::open(fifo_.c_str(), O_RDWR | O_CLOEXEC);
        struct sigaction action = {};
        action.sa_handler = [](int) { (void)!::write(answers_, "\n", 1); }; // no SA_RESTART: the call is interrupted
        EXPECT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
    }

    /// The shell's part, to be followed by more. Each signal is sent again after a second without an answer: the thread
    /// sanitizer may hold one back that comes just before the call.
    [[nodiscard]] std::string script() const {
        return "for i in 1 2 3 4 5 6 7 8 9 10; do kill -USR1 $PPID; "
               "(sleep 1; kill -USR1 $PPID) >/dev/null 2>&1 </dev/null & read answer; kill $!; done <" +
               fifo_ + "; ";
    }

private:
    std::string fifo_;
    static inline int answers_ = -1;
};

#endif
