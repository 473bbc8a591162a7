#include "handler_fixture.h"
#include "host_tool.h"
#include "privileges.h"
#include "shortage.h"
#include "tool_run.h"

#include <gmock/gmock.h>

namespace {

class ToolRunTest : public HandlerTest {
protected:
    host_tool tool{"/usr/local/bin/nimbo_device_tool"};
};

TEST_F(ToolRunTest, KeptArgumentZeroIsThePathBehindItsFirstSlash) {
    EXPECT_EQ(first_slash_argv("/usr/local/bin/x", {"a", ""}), (strings{"usr/local/bin/x", "a", ""}));
    EXPECT_EQ(first_slash_argv("bin/x", {}), strings{"x"});
    EXPECT_EQ(first_slash_argv("x", {}), strings{"x"});
    EXPECT_EQ(first_slash_argv("/", {}), strings{""});
}

TEST_F(ToolRunTest, TheOutputIsKeptAsLongAsTheRunAndNoLonger) {
    tool.answers("text").complains("error").exits(5);
    {
        const tool_run run = run_tool(tool.path(), {"zero", "one"});
        EXPECT_EQ(run.status, 5 << 8);
        EXPECT_EQ(run.output.read_all(), "text");
        EXPECT_EQ(kept_files(), strings{run.output.path()});
    }
    EXPECT_TRUE(kept_files().empty());
    ASSERT_EQ(tool.calls().size(), 1U);
    EXPECT_EQ(tool.calls()[0].argv, (strings{"zero", "one"}));
}

TEST_F(ToolRunTest, OutputThatIsTakenLeavesNoFile) {
    tool.answers("text");
    tool_run run = run_tool(tool.path(), {"zero"});
    EXPECT_EQ(take_output(run), "text");
    EXPECT_TRUE(kept_files().empty());
    EXPECT_EQ(run.status, 0);
}

TEST_F(ToolRunTest, ErrorsCanGoWithTheOutput) {
    tool.complains("error ").answers("text");
    EXPECT_EQ(run_tool(tool.path(), {"zero"}, tool_errors::with_output).output.read_all(), "error text");
}

TEST_F(ToolRunTest, WithoutATemporaryFileNothingIsRun) {
    SKIP_UNLESS(may_mount(), "mounts an empty /tmp, which takes CAP_SYS_ADMIN");
    run_without_temporary_files([this] {
        const tool_run run = run_tool(tool.path(), {"zero"});
        EXPECT_FALSE(run.output.ok());
        EXPECT_EQ(run.status, -1);
        EXPECT_EQ(run.output.read_all(), "");
    });
    EXPECT_TRUE(tool.calls().empty());
}

} // namespace
