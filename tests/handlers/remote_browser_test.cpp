#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "privileges.h"
#include "shortage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kEmptyList = "{\"error_code\":-5,\"error_msg\":\"jRuleList is empty\"}\n";
constexpr const char* kRule = R"([{"wk_id":"w1","des_protocol":"https","host_name":"cam","des_port":8443,)"
                              R"("browser_type":"firefox"},{"wk_id":"ignored"}])";

class RemoteBrowserTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        tool.answers("foo");
    }
    // The vector that the tool gets for `action` and `rules`.
    strings argv_for(const std::string& action, const std::string& rules) {
        tool.clear();
        tool.answers("foo");
        EXPECT_EQ(ask(hos_web_kiosk_handler,
                      R"({"auth_token":"t 1","action":")" + action + R"(","rule_list":)" + rules + "}"),
                  "{\"cli_ret\":0,\"result\":0,\"result_out\":\"Zm9v\"}\n");
        const auto calls = tool.calls();
        EXPECT_EQ(calls.size(), 1U);
        return calls.empty() ? strings{} : calls[0].argv;
    }
    host_tool tool{"/usr/sbin/vsh"};
};

TEST_F(RemoteBrowserTest, EachActionHasItsCommandAndArguments) {
    EXPECT_THAT(argv_for("add", kRule),
                ElementsAre("vsh", "web-kiosk.container.create", "token=t 1", "open_url=https://cam:8443", "ttl=300",
                            "resolution=1920x1080", "type=firefox"));
    EXPECT_THAT(tool.calls()[0].env, IsEmpty());
    EXPECT_THAT(argv_for("delete", kRule), ElementsAre("vsh", "web-kiosk.container.delete", "token=t 1", "id=w1"));
    EXPECT_THAT(argv_for("get_status", kRule), ElementsAre("vsh", "web-kiosk.container", "token=t 1", "id=w1"));
}

TEST_F(RemoteBrowserTest, MissingMembersHaveDefaults) {
    EXPECT_THAT(argv_for("add", R"([{"wk_id":"w1"}])"),
                ElementsAre("vsh", "web-kiosk.container.create", "token=t 1", "open_url=http://:0", "ttl=300",
                            "resolution=1920x1080", "type=chrome"));
    EXPECT_THAT(argv_for("delete", "[{}]"), ElementsAre("vsh", "web-kiosk.container.delete", "token=t 1", "id="));
    EXPECT_THAT(argv_for("delete", "[null]"), ElementsAre("vsh", "web-kiosk.container.delete", "token=t 1", "id="));
    tool.clear();
    tool.answers("");
    EXPECT_EQ(ask(hos_web_kiosk_handler, R"({"action":"get_status","rule_list":[{}]})"),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n");
    EXPECT_THAT(tool.calls()[0].argv, ElementsAre("vsh", "web-kiosk.container", "token=", "id="));
}

TEST_F(RemoteBrowserTest, PortsAreSignedWholeNumbers) {
    EXPECT_EQ(argv_for("add", R"([{"des_port":-1}])")[3], "open_url=http://:-1");
    EXPECT_EQ(argv_for("add", R"([{"des_port":80.9}])")[3], "open_url=http://:80");
}

TEST_F(RemoteBrowserTest, AnEmptyRuleListIsRefusedBeforeTheActionIsLookedAt) {
    for (const char* request :
         {"{}", R"({"action":"delete","rule_list":[]})", R"({"action":"nonsense"})",
          R"({"action":"get_status","auth_token":"t","rule_list":null})", R"({"action":"add","rule_list":"text"})"}) {
        forget_log();
        EXPECT_EQ(ask(hos_web_kiosk_handler, request), kEmptyList) << request;
        EXPECT_THAT(logged(), ElementsAre("[hos_web_kiosk_handler][N] jRuleList is empty"));
    }
    EXPECT_THAT(tool.calls(), IsEmpty());
}

TEST_F(RemoteBrowserTest, AMissingOrUnknownActionHasNoReply) {
    EXPECT_EQ(ask(hos_web_kiosk_handler, R"({"rule_list":[{"wk_id":"w1"}]})"), std::nullopt);
    EXPECT_THAT(logged(), ElementsAre("[hos_web_kiosk_handler][N] unknown action = remove"));
    for (const char* action : {"\"Add\"", "\"remove\"", "null", "5"}) {
        EXPECT_EQ(ask(hos_web_kiosk_handler, R"({"rule_list":[{}],"action":)" + std::string(action) + "}"),
                  std::nullopt)
            << action;
        EXPECT_EQ(escaped_error, "");
    }
    EXPECT_THAT(tool.calls(), IsEmpty());
}

TEST_F(RemoteBrowserTest, MembersThatCannotBeConvertedEndTheRequest) {
    for (const char* request :
         {R"({"action":"add","rule_list":[{"des_port":"80"}]})", R"({"action":"add","rule_list":[{"des_port":null}]})",
          R"({"action":"add","rule_list":[{"des_port":true}]})",
          R"({"action":"delete","rule_list":[{"des_port":4294967296}]})",
          R"({"action":"add","rule_list":[{"wk_id":[]}]})", R"({"action":"add","rule_list":["w1"]})",
          R"({"action":"add","rule_list":[{"des_protocol":["https"]}]})",
          R"({"action":"add","rule_list":[{"host_name":["cam"]}]})",
          R"({"action":"add","rule_list":[{"browser_type":["chrome"]}]})",
          R"({"action":"delete","rule_list":[{"browser_type":{}}]})", R"({"action":"add","rule_list":{"wk_id":"w1"}})",
          R"({"action":{},"rule_list":[{}]})", R"({"action":"add","auth_token":[],"rule_list":[{}]})"}) {
        EXPECT_EQ(ask(hos_web_kiosk_handler, request), std::nullopt) << request;
        EXPECT_THAT(escaped_error, Not(IsEmpty())) << request;
    }
    EXPECT_THAT(tool.calls(), IsEmpty());
}

TEST_F(RemoteBrowserTest, TextThatIsNoObjectIsAnInputErrorAndTracedWithItsReason) {
    for (const char* request : {"[]", "null", "1"}) {
        forget_log();
        EXPECT_EQ(ask(hos_web_kiosk_handler, request), kInputError) << request;
        EXPECT_THAT(logged(),
                    ElementsAre("[hos_web_kiosk_handler][N] parse strInputArg failed, error=[not an object]"));
    }
    const std::string start = "[hos_web_kiosk_handler][N] parse strInputArg failed, error=[";
    forget_log();
    EXPECT_EQ(ask(hos_web_kiosk_handler), kInputError);
    EXPECT_THAT(logged(),
                ElementsAre(start + "* Line 1, Column 1", "  Syntax error: value, object or array expected.", "]"));
    forget_log();
    EXPECT_EQ(ask(hos_web_kiosk_handler, "{"), kInputError);
    EXPECT_THAT(logged(), ElementsAre(start + "* Line 1, Column 2", "  Missing '}' or object member name", "]"));
    EXPECT_THAT(tool.calls(), IsEmpty());
}

TEST_F(RemoteBrowserTest, TextsAreTakenFromNumbersAndBooleansAsWellAndNullIsNone) {
    EXPECT_THAT(argv_for("add", R"([{"des_protocol":null,"host_name":7,"des_port":1,"browser_type":true}])"),
                ElementsAre("vsh", "web-kiosk.container.create", "token=t 1", "open_url=://7:1", "ttl=300",
                            "resolution=1920x1080", "type=true"));
    EXPECT_EQ(argv_for("delete", R"([{"wk_id":5}])")[3], "id=5");
}

TEST_F(RemoteBrowserTest, KeptTheStatusIsZeroAlsoWhenTheOutputsFileIsGone) {
    programs.replace_by_script(tool.path(), "/bin/rm -f \"$(/bin/readlink /proc/$$/fd/1)\"");
    EXPECT_EQ(ask(hos_web_kiosk_handler, R"({"action":"delete","rule_list":[{}]})"),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n");
    EXPECT_EQ(last_logged(), "[hos_web_kiosk_handler][N] exec /usr/sbin/vsh succ, ret_out=[]");
}

// What the log says at last of a run that failed.
std::string failed_run(const std::string& status) {
    return "[hos_web_kiosk_handler][N] exec /usr/sbin/vsh failed, ret=[" + status + "]";
}

TEST_F(RemoteBrowserTest, AToolThatIsKilledOrNotThereHasNoReplyAndItsOutputStays) {
    tool.answers("why").dies_by(SIGKILL);
    EXPECT_EQ(ask(hos_web_kiosk_handler, R"({"action":"delete","rule_list":[{}]})"), std::nullopt);
    EXPECT_EQ(last_logged(), failed_run("9"));
    ASSERT_EQ(kept_files().size(), 1U);
    EXPECT_EQ(read_file(kept_files()[0]), "why");
    programs.take_away(tool.path());
    EXPECT_EQ(ask(hos_web_kiosk_handler, R"({"action":"delete","rule_list":[{}]})"), std::nullopt);
    EXPECT_EQ(last_logged(), failed_run("32512"));
    EXPECT_EQ(kept_files().size(), 2U);
}

int kiosk_without_temporary_files(ks_io* io, int fd) {
    run_without_temporary_files([&] { (void)hos_web_kiosk_handler(io, fd); });
    return 0;
}

TEST_F(RemoteBrowserTest, WithoutATemporaryFileNothingRunsAndThereIsNoReply) {
    SKIP_UNLESS(may_mount(), "mounts an empty /tmp, which takes CAP_SYS_ADMIN");
    EXPECT_EQ(ask(kiosk_without_temporary_files, R"({"action":"delete","rule_list":[{}]})"), std::nullopt);
    EXPECT_EQ(last_logged(), failed_run("-1"));
    EXPECT_THAT(tool.calls(), IsEmpty());
}

TEST_F(RemoteBrowserTest, TheRunIsTracedAndItsFileRemoved) {
    (void)argv_for("delete", kRule);
    EXPECT_THAT(logged(), ElementsAre("[hos_web_kiosk_handler][N] argv[0] = [vsh]",
                                      "[hos_web_kiosk_handler][N] argv[1] = [web-kiosk.container.delete]",
                                      "[hos_web_kiosk_handler][N] argv[2] = [token=t 1]",
                                      "[hos_web_kiosk_handler][N] argv[3] = [id=w1]",
                                      "[hos_web_kiosk_handler][N] argv[4] = [(null)]",
                                      "[hos_web_kiosk_handler][N] exec /usr/sbin/vsh succ, ret_out=[foo]"));
    EXPECT_THAT(kept_files(), IsEmpty());
}

TEST_F(RemoteBrowserTest, AFailedToolHasNoReplyAndItsOutputStays) {
    tool.answers("why").complains("discarded").exits(3);
    EXPECT_EQ(ask(hos_web_kiosk_handler, R"({"action":"delete","rule_list":[{}]})"), std::nullopt);
    EXPECT_THAT(logged(), Contains("[hos_web_kiosk_handler][N] exec /usr/sbin/vsh failed, ret=[768]"));
    ASSERT_EQ(kept_files().size(), 1U);
    EXPECT_EQ(read_file(kept_files()[0]), "why");
}

} // namespace
