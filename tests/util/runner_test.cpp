// The run-and-wait calls, with real children.
#include "interruptions.h"
#include "privileges.h"
#include "runner.h"
#include "test_files.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kCannotExecute = 32512;

// The values of the lines "key=..." of a probe's report, in order.
std::vector<std::string> values(const std::string& report, const std::string& key) {
    std::vector<std::string> found;
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(key + "=", 0) == 0) {
            found.push_back(line.substr(key.size() + 1));
        }
    }
    return found;
}

class RunnerTest : public testing::Test {
protected:
    test_folder folder;
    const std::string out = folder / "out";
    const std::string err = folder / "err";
    const std::string trace = folder / "trace";
    const std::string input = folder / "in";

    std::string report() const { return read_file(out); }
};

TEST_F(RunnerTest, ReturnsTheRawWaitStatus) {
    EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, CHILD_PROBE, "exit", "0", nullptr), 0);
    EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, CHILD_PROBE, "exit", "3", nullptr), 0x300);
    const int status =
        lyn_vexprod_corvo_exec_v2(nullptr, nullptr, nullptr, nullptr, CHILD_PROBE, "raise", "15", nullptr);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST_F(RunnerTest, AProgramThatDoesNotExistGives32512) {
    EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/no/such/program", nullptr), kCannotExecute);
    EXPECT_EQ(lyn_vexprod_corvo_exec_v2(nullptr, nullptr, nullptr, nullptr, "/no/such/program", nullptr),
              kCannotExecute);
    EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, nullptr, nullptr), kCannotExecute);
}

TEST_F(RunnerTest, NoShellRunsAFileWithoutInterpreterLine) {
    write_file(folder / "script", "exit 0\n");
    ASSERT_EQ(::chmod((folder / "script").c_str(), 0755), 0);
    EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, (folder / "script").c_str(), nullptr), kCannotExecute);
}

TEST_F(RunnerTest, VariadicCallsPassTheBaseNameAndThenTheArguments) {
    ASSERT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, nullptr, CHILD_PROBE, "report", "a b", "$HOME", "", nullptr),
              0);
    EXPECT_THAT(values(report(), "argv"), ElementsAre("child_probe", "report", "a b", "$HOME", ""));
    ASSERT_EQ(lyn_vexprod_corvo_exec_v2(nullptr, out.c_str(), nullptr, nullptr, CHILD_PROBE, "report", "*", nullptr),
              0);
    EXPECT_THAT(values(report(), "argv"), ElementsAre("child_probe", "report", "*"));
}

TEST_F(RunnerTest, MoveIsCalledByItsBaseName) {
    write_file(folder / "a", "text");
    EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/bin/mv", (folder / "a").c_str(),
                                     (folder / "b").c_str(), nullptr),
              0);
    EXPECT_EQ(read_file(folder / "b"), "text");
    EXPECT_FALSE(file_exists(folder / "a"));
}

TEST_F(RunnerTest, VectorCallsPassTheCallersVectorAsItStands) {
    std::string zero = "usr/any name";
    std::string one = "report";
    char* argv[] = {zero.data(), one.data(), nullptr};
    ASSERT_EQ(lyn_vexprod_corvo_exec_v(out.c_str(), nullptr, nullptr, CHILD_PROBE, argv), 0);
    EXPECT_THAT(values(report(), "argv"), ElementsAre("usr/any name", "report"));
    ASSERT_EQ(lyn_vexprod_corvo_exec_v_v2(nullptr, out.c_str(), nullptr, nullptr, CHILD_PROBE, argv), 0);
    EXPECT_THAT(values(report(), "argv"), ElementsAre("usr/any name", "report"));
}

TEST_F(RunnerTest, FirstGenerationGivesAnEmptyEnvironment) {
    ASSERT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, nullptr, CHILD_PROBE, "report", nullptr), 0);
    EXPECT_THAT(values(report(), "env"), IsEmpty());
}

TEST_F(RunnerTest, SecondGenerationInheritsTheEnvironmentLessTheLibraryPath) {
    ASSERT_EQ(::setenv("LD_LIBRARY_PATH", "/nowhere", 1), 0);
    ASSERT_EQ(::setenv("LD_LIBRARY_PATH_OTHER", "stays", 1), 0);
    ASSERT_EQ(lyn_vexprod_corvo_exec_v2(nullptr, out.c_str(), nullptr, nullptr, CHILD_PROBE, "report", nullptr), 0);
    EXPECT_THAT(values(report(), "env"), testing::Contains("LD_LIBRARY_PATH_OTHER=stays"));
    EXPECT_THAT(values(report(), "env"), testing::Not(testing::Contains("LD_LIBRARY_PATH=/nowhere")));
    EXPECT_STREQ(::getenv("LD_LIBRARY_PATH"), "/nowhere") << "only the child's copy loses it";
}

TEST_F(RunnerTest, OutputFilesAreTruncatedAndCreatedWithMode0774) {
    const mode_t old_mask = ::umask(0);
    write_file(out, "something much longer than what comes");
    ASSERT_EQ(lyn_vexprod_corvo_exec(out.c_str(), err.c_str(), nullptr, CHILD_PROBE, "both", nullptr), 0);
    ::umask(old_mask);
    EXPECT_EQ(read_file(out), "out1\nout2\n");
    EXPECT_EQ(read_file(err), "err1\nerr2\n");
    struct stat status = {};
    ASSERT_EQ(::stat(err.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0774U);
}

TEST_F(RunnerTest, OneFileForBothStreamsHoldsThemInTheOrderWritten) {
    ASSERT_EQ(lyn_vexprod_corvo_exec(out.c_str(), out.c_str(), nullptr, CHILD_PROBE, "both", nullptr), 0);
    EXPECT_EQ(read_file(out), "out1\nerr1\nout2\nerr2\n");
}

TEST_F(RunnerTest, UnnamedOutputsGoToTheNullDevice) {
    EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/bin/sh", "-c",
                                     "[ /dev/stdout -ef /dev/null ] && [ /dev/stderr -ef /dev/null ]", nullptr),
              0);
}

TEST_F(RunnerTest, NamedOutputsCanBeReadAndTheNullDeviceCannot) {
    const char* read_output = "cat <&1 >/dev/null";
    EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, nullptr, "/bin/sh", "-c", read_output, nullptr), 0);
    EXPECT_NE(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/bin/sh", "-c", read_output, nullptr), 0);
}

TEST_F(RunnerTest, InputComesFromTheNamedFile) {
    write_file(input, "given\n");
    ASSERT_EQ(lyn_vexprod_corvo_exec_v2(input.c_str(), out.c_str(), err.c_str(), nullptr, CHILD_PROBE, "copy", nullptr),
              0);
    EXPECT_EQ(read_file(out), "given\n");
    ASSERT_EQ(
        lyn_vexprod_corvo_exec_v2(input.c_str(), out.c_str(), err.c_str(), nullptr, CHILD_PROBE, "copy-error", nullptr),
        0);
    EXPECT_EQ(read_file(out), "");
    EXPECT_EQ(read_file(err), "given\n");
}

TEST_F(RunnerTest, UnnamedInputIsInherited) {
    write_file(input, "inherited\n");
    EXPECT_TRUE(passes_in_own_process([&] {
        const int fd = ::open(input.c_str(), O_RDONLY);
        ::dup2(fd, STDIN_FILENO);
        EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, nullptr, CHILD_PROBE, "copy", nullptr), 0);
        EXPECT_EQ(read_file(out), "inherited\n");
        ::lseek(fd, 0, SEEK_SET);
        EXPECT_EQ(lyn_vexprod_corvo_exec_v2(nullptr, out.c_str(), nullptr, nullptr, CHILD_PROBE, "copy", nullptr), 0);
        EXPECT_EQ(read_file(out), "inherited\n");
    }));
}

TEST_F(RunnerTest, MissingInputReturnsMinusOneAndRemovesTheOutputs) {
    write_file(out, "old");
    EXPECT_EQ(lyn_vexprod_corvo_exec_v2(input.c_str(), out.c_str(), err.c_str(), trace.c_str(), CHILD_PROBE, "report",
                                        nullptr),
              -1);
    EXPECT_FALSE(file_exists(out));
    EXPECT_FALSE(file_exists(err));
    EXPECT_EQ(read_file(trace), "cmd=" + std::string(CHILD_PROBE) + "\nstdin_file=" + input + "\nstdout_file=" + out +
                                    "\nstderr_file=" + err + "\nopen " + input + " failed\n");
}

TEST_F(RunnerTest, OutputThatCannotBeOpenedReturnsMinusOneAndRemovesTheOutputs) {
    const std::string impossible = folder / "missing/out";
    write_file(err, "old");
    EXPECT_EQ(lyn_vexprod_corvo_exec(impossible.c_str(), err.c_str(), trace.c_str(), CHILD_PROBE, nullptr), -1);
    EXPECT_FALSE(file_exists(err));
    EXPECT_EQ(read_file(trace), "cmd=" + std::string(CHILD_PROBE) + "\nstdout_file=" + impossible +
                                    "\nstderr_file=" + err + "\nopen " + impossible + " failed: -1\n");

    EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), impossible.c_str(), nullptr, CHILD_PROBE, nullptr), -1);
    EXPECT_FALSE(file_exists(out));
    EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), impossible.c_str(), (folder / "t").c_str(), CHILD_PROBE, nullptr),
              -1);
    EXPECT_EQ(read_file(folder / "t"), "cmd=" + std::string(CHILD_PROBE) + "\nstdout_file=" + out +
                                           "\nstderr_file=" + impossible + "\nopen " + impossible + " failed: -1\n");
}

TEST_F(RunnerTest, TraceOfTheFirstGenerationNamesNoInput) {
    ASSERT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, trace.c_str(), CHILD_PROBE, "exit", "0", nullptr), 0);
    EXPECT_EQ(read_file(trace), "cmd=" + std::string(CHILD_PROBE) + "\nstdout_file=(null)\nstderr_file=(null)\n");
}

TEST_F(RunnerTest, TraceOfTheSecondGenerationNamesTheInputAndIsAppendedTo) {
    write_file(trace, "before\n");
    ASSERT_EQ(lyn_vexprod_corvo_exec_v2(nullptr, out.c_str(), out.c_str(), trace.c_str(), "/no/such/program", nullptr),
              kCannotExecute);
    EXPECT_EQ(read_file(trace), "before\ncmd=/no/such/program\nstdin_file=(null)\nstdout_file=" + out +
                                    "\nstderr_file=" + out + "\npipe stdout and stderr to the same file " + out + "\n");
    ASSERT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, (folder / "t").c_str(), nullptr, nullptr), kCannotExecute);
    EXPECT_EQ(read_file(folder / "t"), "cmd=(null)\nstdout_file=(null)\nstderr_file=(null)\n");
}

TEST_F(RunnerTest, TheTraceIsWholeBeforeTheChildStarts) {
    ASSERT_EQ(lyn_vexprod_corvo_exec(out.c_str(), out.c_str(), trace.c_str(), "/bin/cat", trace.c_str(), nullptr), 0);
    EXPECT_EQ(read_file(out), "cmd=/bin/cat\nstdout_file=" + out + "\nstderr_file=" + out +
                                  "\npipe stdout and stderr to the same file " + out + "\n");
}

TEST_F(RunnerTest, ATraceInTheOutputFileIsReplacedByTheOutput) {
    ASSERT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, out.c_str(), CHILD_PROBE, "print", "done", nullptr), 0);
    EXPECT_EQ(read_file(out), "done");
}

TEST_F(RunnerTest, ATraceThatCannotBeOpenedIsDoneWithout) {
    EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, (folder / "missing/trace").c_str(), CHILD_PROBE, "print",
                                     "done", nullptr),
              0);
    EXPECT_EQ(read_file(out), "done");
    const std::string impossible = folder / "missing/out";
    EXPECT_EQ(lyn_vexprod_corvo_exec_v2(input.c_str(), nullptr, nullptr, nullptr, CHILD_PROBE, nullptr), -1);
    EXPECT_EQ(lyn_vexprod_corvo_exec(impossible.c_str(), nullptr, nullptr, CHILD_PROBE, nullptr), -1);
}

TEST_F(RunnerTest, KeptAFailedForkLooksLikeSuccess) {
    SKIP_UNLESS(may_become_others(), "forks as another user, which takes the machine's root");
    EXPECT_TRUE(passes_in_own_process([&] {
        ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
        const struct rlimit no_processes = {0, 0};
        ASSERT_EQ(::setrlimit(RLIMIT_NPROC, &no_processes), 0);
        ASSERT_EQ(::setgid(65534), 0);
        ASSERT_EQ(::setuid(65534), 0);
        EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, nullptr, "/no/such/program", nullptr), 0);
        EXPECT_EQ(lyn_vexprod_corvo_exec_v2(nullptr, nullptr, nullptr, nullptr, "/no/such/program", nullptr), 0);
        EXPECT_TRUE(file_exists(out)) << "the files stay";
    }));
}

TEST_F(RunnerTest, AChildThatCannotBeWaitedForGivesMinusOne) {
    EXPECT_TRUE(passes_in_own_process([&] {
        ::signal(SIGCHLD, SIG_IGN); // the kernel then collects every child itself
        EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, CHILD_PROBE, "exit", "0", nullptr), -1);
    }));
}

TEST_F(RunnerTest, ASignalDoesNotEndTheWait) {
    EXPECT_TRUE(passes_in_own_process([&] {
        const std::string script = interruptions(folder / "answers").script() + "exit 5";
        EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/bin/sh", "-c", script.c_str(), nullptr), 0x500);
    }));
}

} // namespace
