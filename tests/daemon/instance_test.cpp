#include "instance.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// A process that runs under a name of its own until it is told to end.
class named_process {
public:
    explicit named_process(const std::string& name) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, name.c_str());
            close(ready[0]);
            close(ready[1]);
            for (;;) {
                pause();
            }
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 0); // end of file: it has its name
        close(ready[0]);
    }
    named_process(const named_process&) = delete;
    named_process& operator=(const named_process&) = delete;
    ~named_process() {
        end();
        reap();
    }
    // Leaves a zombie behind.
    void end() const {
        kill(pid_, SIGKILL);
        siginfo_t info = {};
        waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }
    void reap() {
        if (pid_ > 0) {
            waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

TEST(InstanceTest, NobodyElseRunsUnderAFreshName) {
    EXPECT_FALSE(ks_reentried("/opt/no-such-prog"));
}

TEST(InstanceTest, ANameIsNeededAndOneLetterIsEnough) {
    const named_process nameless("");
    const named_process letter("~");
    EXPECT_TRUE(ks_reentried("~"));
    EXPECT_FALSE(ks_reentried(nullptr));
    EXPECT_FALSE(ks_reentried(""));
}

TEST(InstanceTest, AnotherProcessOfTheNameIsFoundByTheBaseName) {
    const named_process other("vex-other");
    EXPECT_TRUE(ks_reentried("vex-other"));
    EXPECT_TRUE(ks_reentried("/somewhere/else/vex-other"));
    EXPECT_FALSE(ks_reentried("vex-othe"));
    EXPECT_FALSE(ks_reentried("vex-other2"));
}

TEST(InstanceTest, OnlyTheFirstFifteenCharactersCount) {
    const named_process other("fifteen-letters-and-more");
    EXPECT_TRUE(ks_reentried("fifteen-letters-or-so"));
    EXPECT_FALSE(ks_reentried("fifteen-letter"));
}

TEST(InstanceTest, AZombieIsNotAlive) {
    named_process other("vex-zombie");
    EXPECT_TRUE(ks_reentried("vex-zombie"));
    other.end();
    EXPECT_FALSE(ks_reentried("vex-zombie"));
}

TEST(InstanceTest, ParenthesesAndBlanksInANameAreReadThrough) {
    const named_process other("a) S (b");
    EXPECT_TRUE(ks_reentried("a) S (b"));
    EXPECT_FALSE(ks_reentried("a"));
}

TEST(InstanceTest, TheProcessItselfDoesNotCount) {
    prctl(PR_SET_NAME, "vex-myself");
    EXPECT_FALSE(ks_reentried("/bin/vex-myself"));
}

} // namespace
