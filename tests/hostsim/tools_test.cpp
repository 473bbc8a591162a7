// What every tool of the simulated host does besides its job: records of its calls, and answers that tests choose.

#include "host_tool.h"
#include "shell.h"
#include "test_files.h"
#include "wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Gt;
using testing::IsEmpty;
using testing::MatchesRegex;

class HostTool : public testing::Test {
protected:
    host_tool tool{"/sbin/cfgread"};
};

TEST_F(HostTool, RecordsArgumentsWithTheCallersArgumentZero) {
    shell("bash -c 'exec -a sbin/odd /sbin/cfgread \"two words\" \"\" -x'");
    ASSERT_EQ(tool.calls().size(), 1U);
    EXPECT_THAT(tool.calls()[0].argv, ElementsAre("sbin/odd", "two words", "", "-x"));
}

TEST_F(HostTool, RecordsTheWholeEnvironment) {
    shell("env -i A=1 'B=two words' /sbin/cfgread; env -i /sbin/cfgread");
    ASSERT_EQ(tool.calls().size(), 2U);
    EXPECT_THAT(tool.calls()[0].env, ElementsAre("A=1", "B=two words"));
    EXPECT_THAT(tool.calls()[1].env, IsEmpty());
}

TEST_F(HostTool, RecordsTheDescriptorsItWasStartedWith) {
    shell("bash -c 'exec 7</etc/passwd; exec /sbin/cfgread </dev/null'");
    ASSERT_EQ(tool.calls().size(), 1U);
    const tool_call call = tool.calls()[0];
    EXPECT_THAT(call.fds, Contains(7));
    EXPECT_THAT(call.targets, Contains("/etc/passwd"));
    EXPECT_EQ(call.fds[0], 0);
    EXPECT_EQ(call.targets[0], "/dev/null");
}

TEST_F(HostTool, WorksWithoutStandardStreams) {
    tool.answers("to nobody");
    EXPECT_EQ(exit_code(shell("exec /sbin/cfgread a b -d c <&- >&- 2>&-")), 0);
    const auto calls = tool.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_THAT(calls[0].fds, Each(Gt(2)));
}

TEST_F(HostTool, RecordsFolderAndSignals) {
    shell("cd /usr/lib && bash -c 'trap \"\" PIPE; exec /sbin/cfgread'");
    ASSERT_EQ(tool.calls().size(), 1U);
    EXPECT_EQ(tool.calls()[0].cwd, "/usr/lib");
    EXPECT_THAT(tool.calls()[0].signals, MatchesRegex("SigBlk:\t[0-9a-f]+\nSigIgn:\t[0-9a-f]+1000\n"));
}

TEST_F(HostTool, ReadsStandardInputOnlyWhenAsked) {
    shell("printf unread | /sbin/cfgread");
    tool.reads_stdin();
    shell("printf 'a\\0b\\n' | /sbin/cfgread");
    write_file("/tmp/input", "from a file");
    shell("/sbin/cfgread </tmp/input");
    const auto calls = tool.calls();
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].stdin_text, "");
    EXPECT_EQ(calls[1].stdin_text, std::string("a\0b\n", 4));
    EXPECT_EQ(calls[2].stdin_text, "from a file");
}

TEST_F(HostTool, AnswersInsteadOfDoingItsJob) {
    tool.answers(std::string_view("first\0second\n", 13));
    const auto result = shell("/sbin/cfgread VexHubServer Install_Path -f /etc/config/zpkg.conf");
    EXPECT_EQ(result.output, std::string("first\0second\n", 13));
    EXPECT_EQ(exit_code(result), 0);
}

TEST_F(HostTool, AnswersOneCallApart) {
    tool.answers("every\n").answers("second\n", 2).exits(3, 2);
    const auto result = shell("/sbin/cfgread; /sbin/cfgread; echo $?; /sbin/cfgread; echo $?");
    EXPECT_EQ(result.output, "every\nsecond\n3\nevery\n0\n");
}

TEST_F(HostTool, ExitsAsToldWithoutDoingItsJob) {
    tool.exits(3);
    const auto result = shell("/sbin/cfgread VexHubServer Install_Path -f /etc/config/zpkg.conf");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(exit_code(result), 3);
}

TEST_F(HostTool, ComplainsAndStillDoesItsJob) {
    tool.complains("oh\n");
    EXPECT_EQ(shell("/sbin/cfgread a b -d job 2>&1").output, "oh\njob\n");
}

TEST_F(HostTool, DiesByASignalEvenAnIgnoredOne) {
    tool.dies_by(SIGTERM).answers("last words\n");
    const auto result = shell("trap '' TERM; exec /sbin/cfgread");
    EXPECT_EQ(result.output, "last words\n");
    ASSERT_TRUE(WIFSIGNALED(result.status));
    EXPECT_EQ(WTERMSIG(result.status), SIGTERM);
}

TEST_F(HostTool, RecordsTheCallBeforeItsDelay) {
    tool.delays(std::chrono::hours(1));
    shell("/sbin/cfgread >/dev/null & echo $! > /tmp/pid");
    EXPECT_TRUE(wait_until([&] { return tool.calls().size() == 1; }));
    EXPECT_EQ(kill(std::stoi(read_file("/tmp/pid")), SIGKILL), 0);
}

TEST_F(HostTool, KeepsEveryOneOfConcurrentCalls) {
    shell("for i in $(seq 40); do /sbin/cfgread $i -d x & done >/dev/null; wait");
    std::vector<std::string> seen;
    for (const auto& call : tool.calls()) {
        ASSERT_EQ(call.argv.size(), 4U);
        seen.push_back(call.argv[1]);
    }
    std::vector<std::string> expected;
    for (int i = 1; i <= 40; ++i) {
        expected.push_back(std::to_string(i));
    }
    EXPECT_THAT(seen, testing::UnorderedElementsAreArray(expected));
}

TEST_F(HostTool, ForgetsWhenCleared) {
    tool.answers("x").exits(4);
    shell("/sbin/cfgread");
    tool.clear();
    EXPECT_THAT(tool.calls(), IsEmpty());
    EXPECT_EQ(shell("/sbin/cfgread a b -d job").output, "job\n");
    EXPECT_EQ(tool.calls().size(), 1U);
}

TEST_F(HostTool, KeepsToolsApart) {
    host_tool script("/share/VexHubServer/VexHubServer.sh");
    tool.exits(5);
    EXPECT_EQ(exit_code(shell("/share/VexHubServer/VexHubServer.sh force_stop")), 0);
    EXPECT_THAT(tool.calls(), IsEmpty());
    ASSERT_EQ(script.calls().size(), 1U);
    EXPECT_EQ(script.calls()[0].argv[1], "force_stop");
}

TEST_F(HostTool, EveryToolOfTheTableIsInstalled) {
    const auto listed = shell("/sbin/cfgread --paths").output; // a tool is only itself under its own name
    EXPECT_EQ(listed, "");
    for (const char* path : {"/sbin/cfgread", "/sbin/hwctl", "/share/VexHubServer/VexHubServer.sh"}) {
        EXPECT_TRUE(std::filesystem::is_regular_file(path)) << path;
    }
}

TEST(WaitUntil, GivesUpAfterItsPatience) {
    EXPECT_FALSE(wait_until([] { return false; }, std::chrono::milliseconds(20)));
    int asked = 0;
    EXPECT_TRUE(wait_until([&] { return ++asked == 3; }));
}

} // namespace
