#include "framework_support.h"
#include "host_tool.h"
#include "log.h"
#include "privileges.h"
#include "test_files.h"
#include "wait.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

namespace {

// The start of every line that this process writes, up to and with the bracket before the stamp.
std::string line_start() {
    char start[32];
    std::snprintf(start, sizeof start, "[%05d] [", ::getpid());
    return start;
}

std::string ctime_text(std::time_t second) {
    char text[64] = {};
    return ::ctime_r(&second, text);
}

class LogTest : public testing::Test {
protected:
    void SetUp() override { log_set_dir(folder.path().c_str()); }

    test_folder folder;
    const std::string log = folder / ".lyn_ks_vexprod.log";

    // A message's line without the process id and the stamp, which are checked by tests of their own.
    std::string last_message() const {
        const std::string text = read_file(log);
        const std::size_t start = text.rfind(line_start());
        return start == std::string::npos ? "" : text.substr(start + line_start().size() + 20 + 2);
    }
};

TEST_F(LogTest, WritesOneLineWithProcessIdStampAndMessage) {
    const std::time_t before = std::time(nullptr);
    dbg_printf2("[%s][%d] ks_io input fail.", "handler", 42);
    const std::time_t after = std::time(nullptr);
    const std::string expected_before =
        line_start() + ctime_text(before).substr(0, 20) + "] [handler][42] ks_io input fail.\n";
    const std::string expected_after =
        line_start() + ctime_text(after).substr(0, 20) + "] [handler][42] ks_io input fail.\n";
    EXPECT_THAT(read_file(log), testing::AnyOf(expected_before, expected_after));
}

TEST_F(LogTest, TheStampEndsInABlankAndShowsNoYear) {
    dbg_printf2("x");
    EXPECT_THAT(read_file(log),
                testing::MatchesRegex("\\[[0-9]{5,}\\] "
                                      "\\[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} \\] x\n"));
}

TEST_F(LogTest, TheStampFollowsTheTimeZone) {
    ::setenv("TZ", "AAA-3", 1);
    std::thread([] { dbg_printf2("east"); }).join(); // a new thread has no stamp yet
    const std::time_t now = std::time(nullptr);
    const std::string east = ctime_text(now).substr(0, 13);
    ::setenv("TZ", "BBB9", 1);
    std::thread([] { dbg_printf2("west"); }).join();
    const std::string west = ctime_text(std::time(nullptr)).substr(0, 13);
    ::unsetenv("TZ");
    EXPECT_NE(east, west);
    const std::string text = read_file(log);
    EXPECT_THAT(text, testing::AllOf(testing::HasSubstr("[" + east), testing::HasSubstr("[" + west)));
}

TEST_F(LogTest, EachSecondHasItsOwnStamp) {
    dbg_printf2("first");
    const std::time_t first = std::time(nullptr);
    ASSERT_TRUE(wait_until([&] { return std::time(nullptr) > first; }));
    ASSERT_EQ(::unlink(log.c_str()), 0);
    const std::time_t before = std::time(nullptr);
    dbg_printf2("later");
    const std::time_t after = std::time(nullptr);
    EXPECT_THAT(read_file(log).substr(line_start().size(), 20),
                testing::AnyOf(ctime_text(before).substr(0, 20), ctime_text(after).substr(0, 20)));
}

TEST_F(LogTest, ANewFileIsForAllToReadAndWriteAsTheMaskAllows) {
    const mode_t old_mask = ::umask(0);
    dbg_printf2("x");
    ::umask(old_mask);
    struct stat status = {};
    ASSERT_EQ(::stat(log.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0666U);
}

TEST_F(LogTest, ProcessIdsHaveFiveDigitsAtLeast) {
    dbg_printf2("x");
    char padded[32];
    std::snprintf(padded, sizeof padded, "[%05d] ", ::getpid());
    EXPECT_EQ(read_file(log).substr(0, std::string(padded).size()), padded);
    EXPECT_GE(std::string(padded).size(), 8U);
}

TEST_F(LogTest, AForkedChildsLineCarriesTheChildsId) {
    dbg_printf2("parent");
    const std::string parent = line_start();
    EXPECT_TRUE(passes_in_own_process([&] {
        ASSERT_NE(line_start(), parent);
        dbg_printf2("child");
        EXPECT_THAT(read_file(log), testing::HasSubstr("\n" + line_start()));
    }));
    dbg_printf2("parent again");
    std::ifstream lines(log);
    std::vector<std::string> starts;
    for (std::string line; std::getline(lines, line);) {
        starts.push_back(line.substr(0, parent.size()));
    }
    ASSERT_EQ(starts.size(), 3U);
    EXPECT_EQ(starts[0], parent);
    EXPECT_NE(starts[1], parent);
    EXPECT_EQ(starts[2], parent) << "the child's id stays the child's";
}

TEST_F(LogTest, TheProcessIdIsAskedForOnce) {
    EXPECT_TRUE(passes_in_own_process([&] {
        dbg_printf2("first");
        support::trap_system_call(SYS_getpid); // ends this process should it be made
        dbg_printf2("second");
        EXPECT_THAT(read_file(log), testing::EndsWith("second\n"));
    }));
}

TEST_F(LogTest, AProcessIdOfSevenDigitsIsWrittenWhole) {
    std::ifstream limit("/proc/sys/kernel/pid_max");
    long highest = 0;
    limit >> highest;
    std::ofstream last("/proc/sys/kernel/ns_last_pid"); // of the simulated host alone
    if (highest <= 1234567 || !(last << 1234566 << std::flush)) {
        GTEST_SKIP() << "this kernel gives out no such process id";
    }
    EXPECT_TRUE(passes_in_own_process([&] {
        ASSERT_EQ(::getpid(), 1234567);
        dbg_printf2("x");
        EXPECT_THAT(read_file(log), testing::MatchesRegex("\\[1234567\\] \\[.{20}\\] x\n"));
    }));
}

TEST_F(LogTest, EachCallAppends) {
    write_file(log, "old\n");
    dbg_printf2("one");
    dbg_printf2("%s", "two");
    const std::string text = read_file(log);
    EXPECT_EQ(text.rfind("old\n", 0), 0U);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    EXPECT_EQ(last_message(), "two\n");
}

TEST_F(LogTest, MessagesAreCutAfter2046CharactersAndLinesAfter2047) {
    const std::size_t prefix = line_start().size() + 20 + 2;
    const std::size_t longest_whole = 2047 - prefix - 1;
    dbg_printf2("%s", std::string(longest_whole, 'a').c_str());
    EXPECT_EQ(read_file(log).size(), 2047U);
    EXPECT_EQ(last_message(), std::string(longest_whole, 'a') + "\n");

    ASSERT_EQ(::unlink(log.c_str()), 0);
    dbg_printf2("%s", std::string(longest_whole + 1, 'b').c_str());
    EXPECT_EQ(read_file(log).size(), 2047U);
    EXPECT_EQ(last_message(), std::string(longest_whole + 1, 'b')) << "the newline is what is cut";

    ASSERT_EQ(::unlink(log.c_str()), 0);
    dbg_printf2("%s", std::string(5000, 'c').c_str());
    EXPECT_EQ(last_message(), std::string(longest_whole + 1, 'c'));
}

TEST_F(LogTest, ALogOf524287BytesIsNotRotated) {
    write_file(log, std::string(524287, 'x'));
    dbg_printf2("next");
    EXPECT_FALSE(file_exists(log + ".bak"));
    EXPECT_GT(read_file(log).size(), 524287U);
}

TEST_F(LogTest, ALogOf524288BytesIsMovedBeforeTheNextLine) {
    write_file(log, std::string(524288, 'x'));
    write_file(log + ".bak", "older");
    dbg_printf2("next");
    EXPECT_EQ(read_file(log + ".bak"), std::string(524288, 'x'));
    EXPECT_EQ(last_message(), "next\n");
    EXPECT_LT(read_file(log).size(), 100U);
}

TEST_F(LogTest, RotationRunsMvUnderItsBaseNameWithoutAnEnvironment) {
    SKIP_UNLESS(may_mount(), "mounts a stand-in over /bin/mv, which takes CAP_SYS_ADMIN");
    const std::string program = std::filesystem::canonical("/bin/mv");
    const covered_program cover(program);
    const host_tool mv(program);
    write_file(log, std::string(524288, 'x'));
    dbg_printf2("next");
    const auto calls = mv.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_THAT(calls[0].argv, testing::ElementsAre("mv", log, log + ".bak"));
    EXPECT_THAT(calls[0].env, testing::IsEmpty());
    ASSERT_GE(calls[0].targets.size(), 3U);
    EXPECT_EQ(calls[0].targets[1], "/dev/null");
    EXPECT_EQ(calls[0].targets[2], "/dev/null");
    EXPECT_GT(read_file(log).size(), 524288U) << "nothing was moved, so the line went to the same file";
}

TEST_F(LogTest, TheNameThatAFileIsMovedToIsCutTo255Characters) {
    const std::string deep = folder / std::string(100, 'd') + "/" + std::string(100, 'e');
    std::filesystem::create_directories(deep);
    const std::string file = deep + "/" + std::string(253 - deep.size() - 1, 'f');
    write_file(file, std::string(524288, 'x'));
    log_file_rotation(file.c_str());
    EXPECT_FALSE(file_exists(file));
    EXPECT_TRUE(file_exists(file + ".b"));
}

TEST_F(LogTest, RotationOfAMissingFileDoesNothing) {
    log_file_rotation((folder / "missing").c_str());
    EXPECT_FALSE(file_exists(folder / "missing.bak"));
}

TEST_F(LogTest, WhenRotationFailsWritingGoesOnInTheSameFile) {
    write_file(log, std::string(524288, 'x'));
    std::filesystem::create_directories((log + ".bak") + "/.lyn_ks_vexprod.log/full"); // in the way of /bin/mv
    dbg_printf2("next");
    EXPECT_GT(read_file(log).size(), 524288U);
    EXPECT_EQ(last_message(), "next\n");
}

TEST_F(LogTest, TheOtherEntryWritesAndRotatesTheNamedFile) {
    const std::string other = folder / "other";
    write_file(other, std::string(524288, 'x'));
    dbg_printf(other.c_str(), "%d", 7);
    EXPECT_TRUE(file_exists(other + ".bak"));
    EXPECT_THAT(read_file(other), testing::EndsWith(" ] 7\n"));
    EXPECT_FALSE(file_exists(log));
}

TEST_F(LogTest, AFileThatCannotBeOpenedLosesTheLineSilently) {
    testing::internal::CaptureStderr();
    dbg_printf((folder / "missing/file").c_str(), "lost");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(LogTest, KeepsErrno) {
    errno = ENOTTY;
    dbg_printf((folder / "missing/file").c_str(), "lost");
    dbg_printf2("x");
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(LogTest, SetsThePathsAndCreatesTheDirectory) {
    const std::string inner = folder / "inner";
    const mode_t old_mask = ::umask(0);
    log_set_dir(inner.c_str());
    ::umask(old_mask);
    struct stat status = {};
    ASSERT_EQ(::stat(inner.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0775U);
    EXPECT_STREQ(cLogDirPath, inner.c_str());
    EXPECT_EQ(std::string(cLogFilePath), inner + "/.lyn_ks_vexprod.log");
    dbg_printf2("moved");
    EXPECT_TRUE(file_exists(inner + "/.lyn_ks_vexprod.log"));
}

TEST_F(LogTest, AMissingParentIsReportedAndThePathSetAllTheSame) {
    const std::string deep = folder / "missing/inner";
    testing::internal::CaptureStdout();
    log_set_dir(deep.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error mkdir [" + deep + "] failed ret=-1\n");
    EXPECT_STREQ(cLogDirPath, deep.c_str());
    dbg_printf2("lost");
    EXPECT_FALSE(file_exists(deep));
}

TEST_F(LogTest, WhatIsSaidOfTheDirectoryDoesNotWaitInABuffer) {
    const std::string deep = folder / "missing/inner";
    const std::string out = folder / "out";
    EXPECT_TRUE(passes_in_own_process([&] {
        ASSERT_NE(std::freopen(out.c_str(), "w", stdout), nullptr); // a file: buffered whole
        log_set_dir(deep.c_str());
        EXPECT_EQ(read_file(out), "Error mkdir [" + deep + "] failed ret=-1\n");
    }));
}

TEST_F(LogTest, AnExistingDirectoryIsNotMadeAgain) {
    testing::internal::CaptureStdout();
    log_set_dir(folder.path().c_str()); // mkdir() would fail and say so
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(LogTest, LongDirectoriesAreCutTo255Characters) {
    const std::string longer = "/" + std::string(300, 'd');
    testing::internal::CaptureStdout();
    log_set_dir(longer.c_str());
    (void)testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::string(cLogDirPath), longer.substr(0, 255));
    EXPECT_EQ(std::string(cLogFilePath), longer.substr(0, 255) + "/.lyn_ks_vexprod.log");
}

TEST_F(LogTest, WithoutADirectoryTheMessageIsLostAndSaidSo) {
    cLogFilePath[0] = '\0'; // as at start-up
    testing::internal::CaptureStderr();
    dbg_printf2("lost");
    dbg_printf2("lost");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Log file path not set. Please call log_set_dir() first.\n"
                                                      "Log file path not set. Please call log_set_dir() first.\n");
    EXPECT_FALSE(file_exists(log));
}

TEST_F(LogTest, NeverTakesAStandardDescriptor) {
    EXPECT_TRUE(passes_in_own_process([&] {
        ::close(0);
        ::close(2);
        dbg_printf2("x");
        EXPECT_EQ(last_message(), "x\n");
        EXPECT_EQ(::fcntl(0, F_GETFD), -1);
    }));
}

TEST_F(LogTest, LinesOfManyThreadsDoNotMix) {
    std::vector<std::thread> writers;
    writers.reserve(8);
    for (int thread = 0; thread < 8; ++thread) {
        writers.emplace_back([thread] {
            for (int i = 0; i < 200; ++i) {
                dbg_printf2("%s", std::string(100, static_cast<char>('a' + thread)).c_str());
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    std::ifstream lines(log);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        ASSERT_GE(line.size(), 100U);
        ASSERT_EQ(line.find_first_not_of(line.back(), line.size() - 100), std::string::npos) << line;
    }
    EXPECT_EQ(count, 1600);
}

// The address that a frame's text ends in.
std::uintptr_t address_of(const std::string& frame) {
    return std::stoull(frame.substr(frame.rfind("[0x") + 1), nullptr, 16);
}

TEST_F(LogTest, BacktraceWritesTheInnermostFrameFirst) {
    void* frames[100];
    vexprod_debug_backtrace_dump();
    const int count = ::backtrace(frames, static_cast<int>(std::size(frames)));
    std::vector<std::uintptr_t> written;
    std::istringstream lines(read_file(log));
    for (std::string line; std::getline(lines, line) && line.back() == ']';) {
        written.push_back(address_of(line));
    }
    // This function stands at another line in each, and the dump itself before it in one of them; what called us is the
    // same in both, to the end.
    ASSERT_GT(count, 4);
    ASSERT_GE(written.size(), static_cast<std::size_t>(count));
    const std::vector<void*> callers(frames + 2, frames + count);
    for (std::size_t i = 0; i < callers.size(); ++i) {
        EXPECT_EQ(written[written.size() - callers.size() + i], reinterpret_cast<std::uintptr_t>(callers[i])) << i;
    }
}

// Keeps a frame of each call on the stack.
void dump_below(int depth) { // NOLINT(misc-no-recursion): its frames are what is wanted
    if (depth == 0) {
        vexprod_debug_backtrace_dump();
    } else {
        dump_below(depth - 1);
    }
    errno = depth;
}

TEST_F(LogTest, BacktraceWritesAtMost100Frames) {
    dump_below(120);
    const std::string text = read_file(log);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 100 + 2);
}

TEST_F(LogTest, BacktraceWritesFramesASeparatorAndTheProgramName) {
    vexprod_debug_backtrace_dump();
    std::vector<std::string> messages;
    std::ifstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        messages.push_back(line.substr(line_start().size() + 20 + 2));
    }
    ASSERT_GE(messages.size(), 3U);
    const std::string name = "\\[vexprod_debug_backtrace_dump\\]\\[[0-9]+\\]";
    for (std::size_t i = 0; i + 2 < messages.size(); ++i) {
        EXPECT_THAT(messages[i], testing::MatchesRegex(name + " .*\\[0x[0-9a-f]+\\]"));
    }
    EXPECT_THAT(messages[messages.size() - 2], testing::MatchesRegex(name + "=========================="));
    EXPECT_THAT(messages.back(), testing::MatchesRegex(name + ".*log_test"));
}

} // namespace
