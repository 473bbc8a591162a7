// The cloud's messaging tunnel, asked over a real service, with the simulated host's tool behind it.
#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"

#include <gmock/gmock.h>

namespace {

constexpr const char* kToolName = "usr/local/bin/nimbo_tunnel_agent_tool";

class CloudTunnelTest : public HandlerTest {
protected:
    // A request with all five keys, the command being `command`.
    static std::string request(const std::string& command) {
        return "{\"command\":\"" + command +
               R"(","mode":"m 1","package_name":"pkg","callback_path":"/cb","reg_id":"r-1"})";
    }
    host_tool tool{"/usr/local/bin/nimbo_tunnel_agent_tool"};
};

TEST_F(CloudTunnelTest, EachCommandPassesItsOwnArguments) {
    tool.answers("ok\n");
    for (const char* command : {"register_ncm", "unregister_ncm", "get_url"}) {
        EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler, request(command)),
                  "{\"cli_ret\":0,\"result\":0,\"result_out\":\"b2sK\"}\n");
    }
    const auto calls = tool.calls();
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].argv, (strings{kToolName, "register_ncm", "-m", "m 1", "-p", "pkg", "-c", "/cb"}));
    EXPECT_EQ(calls[1].argv, (strings{kToolName, "unregister_ncm", "-r", "r-1"}));
    EXPECT_EQ(calls[2].argv, (strings{kToolName, "get_url"}));
    EXPECT_TRUE(calls[0].env.empty());
    EXPECT_TRUE(kept_files().empty());
    EXPECT_EQ(log(), "");
}

TEST_F(CloudTunnelTest, EmptyTextsAreAccepted) {
    EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler,
                  R"({"command":"get_url","mode":"","package_name":"","callback_path":"","reg_id":""})"),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"aHR0cHM6Ly90dW5uZWwuZXhhbXBsZS9ob3N0LTEK\"}\n");
    EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler,
                  R"({"command":"unregister_ncm","mode":"","package_name":"","callback_path":"","reg_id":""})"),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n");
    ASSERT_EQ(tool.calls().size(), 2U);
    EXPECT_EQ(tool.calls()[1].argv, (strings{kToolName, "unregister_ncm", "-r", ""}));
}

TEST_F(CloudTunnelTest, EveryKeyIsRequiredForEveryCommand) {
    for (const char* text :
         {R"({"command":"get_url"})", R"({"command":"get_url","mode":"","package_name":"","callback_path":""})",
          R"({"command":"get_url","mode":"","package_name":"","reg_id":""})",
          R"({"command":"get_url","mode":"","callback_path":"","reg_id":""})",
          R"({"command":"get_url","package_name":"","callback_path":"","reg_id":""})",
          R"({"mode":"","package_name":"","callback_path":"","reg_id":""})",
          R"({"command":"get_url","mode":1,"package_name":"","callback_path":"","reg_id":""})",
          R"({"command":"get_url","mode":"","package_name":2,"callback_path":"","reg_id":""})",
          R"({"command":"get_url","mode":"","package_name":"","callback_path":true,"reg_id":""})",
          R"({"command":"get_url","mode":"","package_name":"","callback_path":"","reg_id":["r"]})",
          R"({"command":"get_url","mode":"","package_name":"","callback_path":"","reg_id":null})",
          R"({"command":null,"mode":"","package_name":"","callback_path":"","reg_id":""})", "{}", "[]",
          "\"get_url\""}) {
        EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler, text), kPaserFail) << text;
    }
    EXPECT_TRUE(tool.calls().empty());
    EXPECT_EQ(log(), "");
}

TEST_F(CloudTunnelTest, AnUnreadableRequestEndsAsAParserFailure) {
    for (const char* text : {"", "get_url", R"({"command":"get_url")"}) {
        EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler, text), kPaserFail) << text;
    }
    EXPECT_THAT(log(), testing::ContainsRegex(
                           R"(\[hos_system_call_cloud_ncm_tunnel_agent_handler\]\[[0-9]+\] ks_io input fail\.)"));
    EXPECT_TRUE(tool.calls().empty());
}

TEST_F(CloudTunnelTest, AnyOtherCommandIsUnknown) {
    for (const char* command : {"Register_ncm", "get_url ", "", "register", "get_url\\u0000"}) {
        EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler, request(command)),
                  "{\"error_code\":-6,\"error_msg\":\"not support command\"}\n")
            << command;
    }
    EXPECT_TRUE(tool.calls().empty());
}

TEST_F(CloudTunnelTest, AToolThatFailsIsAFailureOfTheHandler) {
    tool.answers("output").exits(2);
    EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler, request("get_url")),
              "{\"error_msg\":\"hos_system_call_cloud_ncm_tunnel_agent_handler fail\",\"result\":-1}\n");
    programs.take_away(tool.path());
    EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler, request("get_url")),
              "{\"error_msg\":\"hos_system_call_cloud_ncm_tunnel_agent_handler fail\",\"result\":-1}\n");
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(CloudTunnelTest, AFileThatCannotBeRemovedIsTraced) {
    programs.replace_by_script(tool.path(), kRemoveKeptFiles);
    EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler, request("get_url")),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n");
    programs.replace_by_script(tool.path(), std::string(kRemoveKeptFiles) + "; exit 3");
    EXPECT_EQ(ask(hos_system_call_cloud_ncm_tunnel_agent_handler, request("get_url")),
              failure("hos_system_call_cloud_ncm_tunnel_agent_handler"));
    EXPECT_THAT(logged(), testing::AllOf(testing::SizeIs(2),
                                         testing::Each(testing::MatchesRegex(
                                             "\\[hos_system_call_cloud_ncm_tunnel_agent_handler\\]\\[N\\] remove "
                                             "tmpfile:\\[/tmp/vexprod-[A-Za-z0-9]+\\] fail\\."))));
}

} // namespace
