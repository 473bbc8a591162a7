// The run-with-a-pipe calls, with real children.
#include "forbid_system_call.h"
#include "interruptions.h"
#include "privileges.h"
#include "runner.h"
#include "scoped.h"
#include "test_files.h"
#include "unique_fd.h"
#include "wait.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>

namespace {

std::string read_stream(FILE* stream) {
    std::string text;
    for (int c = 0; (c = std::fgetc(stream)) != EOF;) {
        text.push_back(static_cast<char>(c));
    }
    return text;
}

class PopenTest : public testing::Test {
protected:
    test_folder folder;
    const std::string out = folder / "out";
    const std::string err = folder / "err";
    const std::string input = folder / "in";
};

TEST_F(PopenTest, ModeRReadsTheChildsOutput) {
    FILE* stream = lyn_vexprod_corvo_popen_v2(nullptr, out.c_str(), err.c_str(), "r", CHILD_PROBE, "both", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(read_stream(stream), "out1\nout2\n");
    EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), 0);
    EXPECT_EQ(read_file(err), "err1\nerr2\n");
    EXPECT_FALSE(file_exists(out)) << "the output file is ignored";
}

TEST_F(PopenTest, ModeRTakesInputFromTheNamedFile) {
    write_file(input, "some input");
    FILE* stream = lyn_vexprod_corvo_popen_v2(input.c_str(), nullptr, nullptr, "r", CHILD_PROBE, "copy", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(read_stream(stream), "some input");
    EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), 0);
}

TEST_F(PopenTest, ModeRDoesNotShareTheErrorFileWithTheIgnoredOutputFile) {
    FILE* stream = lyn_vexprod_corvo_popen_v2(nullptr, out.c_str(), out.c_str(), "r", CHILD_PROBE, "both", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(read_stream(stream), "out1\nout2\n");
    EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), 0);
    EXPECT_EQ(read_file(out), "err1\nerr2\n");
}

TEST_F(PopenTest, ModeWWritesTheChildsInput) {
    FILE* stream =
        lyn_vexprod_corvo_popen_v2("/no/such/input", out.c_str(), nullptr, "w", CHILD_PROBE, "copy", nullptr);
    ASSERT_NE(stream, nullptr) << "the input file is ignored";
    EXPECT_GE(std::fputs("to the child\n", stream), 0);
    EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), 0);
    EXPECT_EQ(read_file(out), "to the child\n");
}

TEST_F(PopenTest, ModeWWithOneFileForBothStreamsHoldsThemInTheOrderWritten) {
    FILE* stream = lyn_vexprod_corvo_popen_v2(nullptr, out.c_str(), out.c_str(), "w", CHILD_PROBE, "both", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), 0);
    EXPECT_EQ(read_file(out), "out1\nerr1\nout2\nerr2\n");
}

TEST_F(PopenTest, ModeWWithoutFilesDiscards) {
    FILE* stream = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "w", CHILD_PROBE, "both", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), 0);
}

TEST_F(PopenTest, AnyOtherModeIsInvalid) {
    for (const char* mode : {"rw", "", "a", "r+", "re", static_cast<const char*>(nullptr)}) {
        errno = 0;
        EXPECT_EQ(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, mode, CHILD_PROBE, "exit", "0", nullptr),
                  nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(PopenTest, VariadicAndVectorCallsDifferInWhoChoosesArgumentZero) {
    std::string zero = "any/name";
    std::string one = "report";
    char* argv[] = {zero.data(), one.data(), nullptr};
    const unique_pipe vector(lyn_vexprod_corvo_popen_v_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, argv));
    EXPECT_THAT(read_stream(vector.get()), testing::HasSubstr("argv=any/name\nargv=report\n"));
    const unique_pipe variadic(
        lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "report", "x y", nullptr));
    EXPECT_THAT(read_stream(variadic.get()), testing::HasSubstr("argv=child_probe\nargv=report\nargv=x y\n"));
}

TEST_F(PopenTest, ChildInheritsTheEnvironmentLessTheLibraryPath) {
    ASSERT_EQ(::setenv("LD_LIBRARY_PATH", "/nowhere", 1), 0);
    ASSERT_EQ(::setenv("OTHER_VARIABLE", "stays", 1), 0);
    const unique_pipe stream(
        lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "report", nullptr));
    const std::string report = read_stream(stream.get());
    EXPECT_THAT(report, testing::HasSubstr("env=OTHER_VARIABLE=stays\n"));
    EXPECT_THAT(report, testing::Not(testing::HasSubstr("LD_LIBRARY_PATH")));
}

TEST_F(PopenTest, CloseReturnsTheRawWaitStatus) {
    EXPECT_EQ(lyn_vexprod_corvo_pclose(
                  lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "exit", "7", nullptr)),
              0x700);
    EXPECT_EQ(lyn_vexprod_corvo_pclose(
                  lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", "/no/such/program", nullptr)),
              32512);
}

TEST_F(PopenTest, ClosingEarlyEndsAChildThatStillWrites) {
    FILE* stream = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "fill", "1000000", nullptr);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(std::fgetc(stream), 'x');
    const int status = lyn_vexprod_corvo_pclose(stream);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGPIPE);
}

TEST_F(PopenTest, CloseOfAnUnknownStreamLeavesItOpen) {
    const unique_file own(std::fopen("/dev/null", "r"));
    ASSERT_TRUE(own);
    EXPECT_EQ(lyn_vexprod_corvo_pclose(own.get()), -1);
    EXPECT_NE(::fcntl(::fileno(own.get()), F_GETFD), -1);
    EXPECT_EQ(lyn_vexprod_corvo_pclose(nullptr), -1);
}

TEST_F(PopenTest, StreamsCloseInAnyOrderAndEachGivesItsOwnStatus) {
    FILE* streams[4] = {};
    for (int i = 0; i < 4; ++i) {
        streams[i] = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "exit",
                                                std::to_string(i).c_str(), nullptr);
        ASSERT_NE(streams[i], nullptr);
    }
    for (const int i : {1, 3, 0, 2}) {
        EXPECT_EQ(lyn_vexprod_corvo_pclose(streams[i]), i << 8);
    }
}

TEST_F(PopenTest, ChildrenDoNotHoldOneAnothersPipes) {
    // The second child would keep the first one's input open, and the first would never see its end.
    FILE* first = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "w", CHILD_PROBE, "drain", nullptr);
    FILE* second = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "w", CHILD_PROBE, "drain", nullptr);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(lyn_vexprod_corvo_pclose(first), 0);
    EXPECT_EQ(lyn_vexprod_corvo_pclose(second), 0);
}

TEST_F(PopenTest, FilesThatCannotBeOpenedGiveNullAndLeaveNoOutput) {
    const std::string impossible = folder / "missing/file";
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(input.c_str(), nullptr, err.c_str(), "r", CHILD_PROBE, nullptr), nullptr);
    EXPECT_FALSE(file_exists(err));
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(nullptr, impossible.c_str(), nullptr, "w", CHILD_PROBE, nullptr), nullptr);
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(nullptr, out.c_str(), impossible.c_str(), "w", CHILD_PROBE, nullptr), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(file_exists(out));
}

TEST_F(PopenTest, FilesThatTheCallDidNotOpenAreLeftAlone) {
    const std::string impossible = folder / "missing/file";
    write_file(out, "old");
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(input.c_str(), out.c_str(), nullptr, "r", CHILD_PROBE, nullptr), nullptr);
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(input.c_str(), nullptr, out.c_str(), "r", CHILD_PROBE, nullptr), nullptr);
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(nullptr, impossible.c_str(), out.c_str(), "w", CHILD_PROBE, nullptr), nullptr);
    EXPECT_EQ(read_file(out), "old");
    ASSERT_EQ(::mkdir(impossible.substr(0, impossible.rfind('/')).c_str(), 0700), 0);
    ASSERT_EQ(::symlink("/dev/full/x", impossible.c_str()), 0);
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, impossible.c_str(), "r", CHILD_PROBE, nullptr), nullptr);
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(nullptr, impossible.c_str(), nullptr, "w", CHILD_PROBE, nullptr), nullptr);
    EXPECT_EQ(std::filesystem::read_symlink(impossible), "/dev/full/x");
}

TEST_F(PopenTest, AnOutputThatCannotBeRemovedDoesNotHideTheFailure) {
    write_file(out, "");
    const unique_fd file(::open(out.c_str(), O_RDWR | O_CLOEXEC));
    const std::string other_name = "/proc/self/fd/" + std::to_string(file.get());
    const std::string impossible = folder / "missing/file";
    EXPECT_EQ(lyn_vexprod_corvo_popen_v2(nullptr, other_name.c_str(), impossible.c_str(), "w", CHILD_PROBE, nullptr),
              nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PopenTest, AFailedForkGivesNull) {
    SKIP_UNLESS(may_become_others(), "forks as another user, which takes the machine's root");
    EXPECT_TRUE(passes_in_own_process([] {
        const struct rlimit no_processes = {0, 0};
        ASSERT_EQ(::setrlimit(RLIMIT_NPROC, &no_processes), 0);
        ASSERT_EQ(::setgid(65534), 0);
        ASSERT_EQ(::setuid(65534), 0);
        EXPECT_EQ(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/true", nullptr), nullptr);
        EXPECT_EQ(errno, EAGAIN);
    }));
}

TEST_F(PopenTest, NoPipeToBeHadGivesNull) {
    EXPECT_TRUE(passes_in_own_process([] {
        const int first_free = ::dup(0);
        ::close(first_free);
        struct rlimit limit = {};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        for (int more = 0; more < 4; ++more) { // no pipe, half of one, and the files beside it missing
            limit.rlim_cur = static_cast<rlim_t>(first_free + more);
            ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
            const bool enough = more == 3;
            FILE* stream = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/true", nullptr);
            EXPECT_EQ(stream != nullptr, enough) << more;
            EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), enough ? 0 : -1);
        }
    }));
}

TEST_F(PopenTest, CloseWaitsOnWhenASignalArrives) {
    EXPECT_TRUE(passes_in_own_process([&] {
        const std::string script = "cat; " + interruptions(folder / "answers").script() + "exit 9";
        FILE* stream =
            lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "w", "/bin/sh", "-c", script.c_str(), nullptr);
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), 0x900);
    }));
}

// Reading a tool's output, on a kernel that tells of a child's end by a descriptor, and on one that does not.
class ReadOutputTest : public PopenTest, public testing::WithParamInterface<bool> {
protected:
    // Runs `body` in a process of its own, as each of these tests would wait for ever when it fails.
    static bool passes(const std::function<void()>& body) {
        return passes_in_own_process([&] {
            if (!GetParam()) {
                forbid_system_call(SYS_pidfd_open); // as before 5.3
                ASSERT_EQ(::syscall(SYS_pidfd_open, ::getpid(), 0), -1);
            }
            body();
        });
    }
    static unique_pipe shell(const char* script) {
        return unique_pipe(
            lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/sh", "-c", script, nullptr));
    }
    // Waits until the only child is there to be waited for.
    static void wait_for_the_end() {
        siginfo_t end = {};
        ASSERT_EQ(::waitid(P_ALL, 0, &end, WEXITED | WNOWAIT), 0);
    }
};

INSTANTIATE_TEST_SUITE_P(, ReadOutputTest, testing::Bool());

TEST_P(ReadOutputTest, IsAllThatTheToolPrintsUpToTheLimit) {
    EXPECT_TRUE(passes([] {
        const auto start = [] {
            return unique_pipe(
                lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "fill", "1000000", nullptr));
        };
        EXPECT_EQ(read_output(start().get()), std::string(1000000, 'x'));
        EXPECT_EQ(read_output(start().get(), 1000000), std::string(1000000, 'x'));
        EXPECT_EQ(read_output(start().get(), 200000), std::string(200000, 'x'));
        EXPECT_EQ(read_output(start().get(), 1), "x");
        EXPECT_EQ(read_output(start().get(), 0), "");
    }));
}

TEST_P(ReadOutputTest, AToolThatPausesIsWaitedFor) {
    EXPECT_TRUE(passes([] { EXPECT_EQ(read_output(shell("echo a; sleep 0.3; echo b").get()), "a\nb\n"); }));
}

TEST_P(ReadOutputTest, AToolThatRunsOnWhenThereIsNothingToBeReadIsNotWaitedFor) {
    EXPECT_TRUE(passes([&] {
        ASSERT_EQ(::mkfifo(input.c_str(), 0600), 0);
        const unique_fd gate(::open(input.c_str(), O_RDWR | O_CLOEXEC));
        const std::string waits = "read word <" + input + "; exit 3";
        unique_pipe tool = shell(("echo a; exec >/dev/null; " + waits).c_str());
        EXPECT_EQ(read_output(tool.get()), "a\n");
        ASSERT_EQ(::write(gate.get(), "go\n", 3), 3);
        EXPECT_EQ(lyn_vexprod_corvo_pclose(tool.release()), 0x300);
        tool = shell(("echo a; " + waits).c_str());
        EXPECT_EQ(read_output(tool.get(), 2), "a\n") << "nor one that has reached the limit";
        ASSERT_EQ(::write(gate.get(), "go\n", 3), 3);
    }));
}

TEST_P(ReadOutputTest, AToolThatHasEndedLeavesItsWholeTextAndItsStatus) {
    EXPECT_TRUE(passes([] {
        unique_pipe tool = shell("printf '%60000s' end; exit 3");
        wait_for_the_end();
        EXPECT_EQ(read_output(tool.get()), std::string(59997, ' ') + "end");
        EXPECT_EQ(lyn_vexprod_corvo_pclose(tool.release()), 0x300);
        tool = shell("printf text");
        wait_for_the_end();
        EXPECT_EQ(read_output(tool.get(), 2), "te");
    }));
}

TEST_P(ReadOutputTest, AProcessLeftBehindThatHoldsTheOutputIsNotWaitedFor) {
    EXPECT_TRUE(passes([] {
        unique_pipe tool = shell("sleep 300 & echo $!; exit 3");
        const std::string text = read_output(tool.get());
        const pid_t left_behind = std::stoi("0" + text);
        ASSERT_GT(left_behind, 0) << text;
        EXPECT_EQ(text, std::to_string(left_behind) + "\n");
        EXPECT_EQ(lyn_vexprod_corvo_pclose(tool.release()), 0x300) << "nor by the call that waits";
        EXPECT_EQ(::kill(left_behind, SIGKILL), 0);
    }));
}

TEST_P(ReadOutputTest, NorWhenTheToolItselfPrintedNothing) {
    EXPECT_TRUE(passes([&] {
        const unique_pipe tool = shell(("sleep 300 & echo $! >" + out).c_str());
        EXPECT_EQ(read_output(tool.get()), "");
        EXPECT_EQ(::kill(std::stoi("0" + read_file(out)), SIGKILL), 0);
    }));
}

TEST_P(ReadOutputTest, AProcessLeftBehindThatPrintsOnAndOnIsNotReadOnAndOn) {
    EXPECT_TRUE(passes([] { // it ends when nobody reads what it prints
        unique_pipe tool = shell("echo first; (while echo more; do :; done) &");
        EXPECT_THAT(read_output(tool.get()), testing::StartsWith("first\n"));
        EXPECT_EQ(lyn_vexprod_corvo_pclose(tool.release()), 0);
    }));
}

TEST_P(ReadOutputTest, ASignalDoesNotEndTheReading) {
    EXPECT_TRUE(passes([&] {
        const std::string script = interruptions(folder / "answers").script() + "echo late";
        EXPECT_EQ(read_output(shell(script.c_str()).get()), "late\n");
    }));
}

TEST_P(ReadOutputTest, AChildThatTheKernelCollectedHasEnded) {
    EXPECT_TRUE(passes([] {
        ::signal(SIGCHLD, SIG_IGN);
        const unique_pipe tool = shell("sleep 300 & echo $!");
        const std::string text = read_output(tool.get());
        EXPECT_EQ(::kill(std::stoi("0" + text), SIGKILL), 0) << text;
    }));
}

TEST_F(PopenTest, ReadingTakesNoNumberOfTheStandardStreams) {
    EXPECT_TRUE(passes_in_own_process([&] {
        ASSERT_EQ(::mkfifo(input.c_str(), 0600), 0);
        unique_fd gate(::open(input.c_str(), O_RDWR | O_CLOEXEC));
        ::close(STDIN_FILENO);
        const unique_pipe tool(
            lyn_vexprod_corvo_popen_v2(input.c_str(), nullptr, nullptr, "r", CHILD_PROBE, "copy", nullptr));
        std::thread reader([&] { EXPECT_EQ(read_output(tool.get()), "text"); });
        std::string number;
        EXPECT_TRUE(wait_until([&] {
            for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
                std::error_code gone;
                if (std::filesystem::read_symlink(entry, gone).string().find("pidfd") != std::string::npos) {
                    number = entry.path().filename();
                }
            }
            return !number.empty() && !file_exists("/proc/self/fd/0");
        }));
        EXPECT_EQ(::fcntl(std::stoi("0" + number), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::write(gate.get(), "text", 4), 4);
        gate.reset();
        reader.join();
    }));
}

} // namespace
