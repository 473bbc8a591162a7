// The cloud account and what its tools tell in Base64, asked over a real service, with the simulated host's tools
// behind it.
#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"

#include <gmock/gmock.h>

#include <csignal>

namespace {

class CloudAccountTest : public HandlerTest {
protected:
    host_tool cfgread{"/sbin/cfgread"};
    host_tool auth_tool{"/usr/local/bin/nimbo_auth_tool"};
    host_tool cloud_cli{"/usr/bin/nimbo_cli"};
    host_tool cloud_host{"/usr/sbin/get_nimbo_host"};
};

// The five commands with "result_out" and "cli_ret".
struct encoded_case {
    handler_function handler;
    const char* name;
    const char* request;
    const char* tool;
    std::vector<std::string> argv;
};

std::vector<encoded_case> encoded_cases() {
    return {
        {hos_system_call_cloud_get_xid_service_handler,
         "hos_system_call_cloud_get_xid_service_handler",
         R"({"section_name":"Cloud","field_name":"Service URL"})",
         "/sbin/cfgread",
         {"sbin/cfgread", "Cloud", "Service URL", "-f", "/etc/config/xid.conf"}},
        {hos_system_call_cloud_get_user_token_handler,
         "hos_system_call_cloud_get_user_token_handler",
         "",
         "/usr/bin/nimbo_cli",
         {"usr/bin/nimbo_cli", "-t"}},
        {hos_system_call_cloud_get_host_endpoint_handler,
         "hos_system_call_cloud_get_host_endpoint_handler",
         "",
         "/usr/sbin/get_nimbo_host",
         {"usr/sbin/get_nimbo_host", "-n", "n2_api"}},
        {hos_system_call_cloud_get_host_site_handler,
         "hos_system_call_cloud_get_host_site_handler",
         "",
         "/usr/sbin/get_nimbo_host",
         {"usr/sbin/get_nimbo_host", "-s"}},
        {hos_system_call_cloud_get_access_token_handler,
         "hos_system_call_cloud_get_access_token_handler",
         R"({"client_id":"id","client_secret":"hush","access_token":"tok"})",
         "/usr/local/bin/nimbo_auth_tool",
         {"usr/local/bin/nimbo_auth_tool", "signin", "-t", "exchange_token", "-a", "tok", "-i", "id", "-s", "hush",
          "-o", "json"}},
    };
}

TEST_F(CloudAccountTest, AToolsOutputIsAnsweredInBase64) {
    for (const encoded_case& each : encoded_cases()) {
        host_tool tool(each.tool);
        tool.answers(std::string("a\0\xff\n", 4)).complains("not wanted");
        EXPECT_EQ(ask(each.handler, each.request), "{\"cli_ret\":0,\"result\":0,\"result_out\":\"YQD/Cg==\"}\n")
            << each.name;
        const auto calls = tool.calls();
        ASSERT_EQ(calls.size(), 1U) << each.name;
        EXPECT_EQ(calls[0].argv, each.argv);
        EXPECT_TRUE(calls[0].env.empty()) << each.name;
    }
    EXPECT_TRUE(kept_files().empty());
    EXPECT_EQ(log(), "");
}

TEST_F(CloudAccountTest, AToolThatPrintsNothingGivesAnEmptyText) {
    for (const encoded_case& each : encoded_cases()) {
        host_tool(each.tool).answers("");
        EXPECT_EQ(ask(each.handler, each.request), "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n") << each.name;
    }
}

TEST_F(CloudAccountTest, AToolThatFailsIsAFailureOfTheHandler) {
    for (const encoded_case& each : encoded_cases()) {
        host_tool tool(each.tool);
        tool.answers("output").exits(3);
        EXPECT_EQ(ask(each.handler, each.request), failure(each.name));
        tool.dies_by(SIGKILL);
        EXPECT_EQ(ask(each.handler, each.request), failure(each.name));
    }
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(CloudAccountTest, AToolThatIsNotThereIsAFailureOfTheHandler) {
    for (const encoded_case& each : encoded_cases()) {
        programs.take_away(each.tool);
        EXPECT_EQ(ask(each.handler, each.request), failure(each.name));
    }
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(CloudAccountTest, AFileThatCannotBeRemovedIsTraced) {
    for (const encoded_case& each : encoded_cases()) {
        forget_log();
        programs.replace_by_script(each.tool, kRemoveKeptFiles);
        EXPECT_EQ(ask(each.handler, each.request), "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n") << each.name;
        programs.replace_by_script(each.tool, std::string(kRemoveKeptFiles) + "; exit 3");
        EXPECT_EQ(ask(each.handler, each.request), failure(each.name));
        const std::string trace =
            std::string("\\[") + each.name + "\\]\\[N\\] remove tmpfile:\\[/tmp/vexprod-[A-Za-z0-9]+\\] fail\\.";
        EXPECT_THAT(logged(), testing::AllOf(testing::SizeIs(2), testing::Each(testing::MatchesRegex(trace))));
    }
}

TEST_F(CloudAccountTest, CommandsWithoutParametersTakeAnyRequest) {
    for (const encoded_case& each : encoded_cases()) {
        if (each.request[0] != '\0') {
            continue;
        }
        host_tool(each.tool).answers("foo");
        for (const char* request : {"", "{", "not json", "[]"}) {
            EXPECT_EQ(ask(each.handler, request), "{\"cli_ret\":0,\"result\":0,\"result_out\":\"Zm9v\"}\n")
                << each.name << request;
        }
    }
    EXPECT_EQ(log(), "");
}

TEST_F(CloudAccountTest, AnUnreadableRequestEndsAsAParserFailure) {
    for (const char* text : {"", "{", "not json", "{\"client_id\":\"id\""}) {
        EXPECT_EQ(ask(hos_system_call_cloud_get_xid_service_handler, text), kPaserFail) << text;
        EXPECT_EQ(ask(hos_system_call_cloud_get_access_token_handler, text), kPaserFail) << text;
    }
    EXPECT_THAT(log(), testing::ContainsRegex(
                           R"(\[hos_system_call_cloud_get_xid_service_handler\]\[[0-9]+\] ks_io input fail\.)"));
    EXPECT_THAT(log(), testing::ContainsRegex(
                           R"(\[hos_system_call_cloud_get_access_token_handler\]\[[0-9]+\] ks_io input fail\.)"));
    EXPECT_TRUE(cfgread.calls().empty());
    EXPECT_TRUE(auth_tool.calls().empty());
}

TEST_F(CloudAccountTest, AMissingOrWrongKeyRunsNothing) {
    for (const char* text : {"{}", "[]", R"({"section_name":"s"})", R"({"field_name":"f"})",
                             R"({"section_name":1,"field_name":"f"})", R"({"section_name":"s","field_name":null})"}) {
        EXPECT_EQ(ask(hos_system_call_cloud_get_xid_service_handler, text), kPaserFail) << text;
    }
    for (const char* text : {"{}", "1", R"({"client_id":"i","access_token":"t"})",
                             R"({"client_secret":"s","access_token":"t"})", R"({"client_id":"i","client_secret":"s"})",
                             R"({"client_id":"i","client_secret":["s"],"access_token":"t"})"}) {
        EXPECT_EQ(ask(hos_system_call_cloud_get_access_token_handler, text), kPaserFail) << text;
    }
    EXPECT_TRUE(cfgread.calls().empty());
    EXPECT_TRUE(auth_tool.calls().empty());
    EXPECT_EQ(log(), "");
}

TEST_F(CloudAccountTest, ArgumentsReachTheToolAsTheyAreUpToTheirNul) {
    (void)ask(hos_system_call_cloud_get_xid_service_handler,
              "{\"section_name\":\"-f; $(x) '\xff\",\"field_name\":\"a\\u0000b\"}");
    const auto calls = cfgread.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv, (strings{"sbin/cfgread", "-f; $(x) '\xff", "a", "-f", "/etc/config/xid.conf"}));
}

TEST_F(CloudAccountTest, NoSecretReachesTheLog) {
    const char* request = R"({"client_id":"id-7","client_secret":"hush-7","access_token":"tok-7"})";
    auth_tool.exits(1);
    (void)ask(hos_system_call_cloud_get_access_token_handler, request);
    programs.replace_by_script("/usr/local/bin/nimbo_auth_tool", kRemoveKeptFiles);
    (void)ask(hos_system_call_cloud_get_access_token_handler, request);
    (void)ask(hos_system_call_cloud_get_access_token_handler, R"({"client_secret":"hush-7","access_token":"tok-7")");
    EXPECT_THAT(log(), testing::HasSubstr("remove tmpfile"));
    EXPECT_THAT(log(), testing::Not(testing::ContainsRegex("(id|hush|tok)-7")));
}

TEST_F(CloudAccountTest, TheHostsOwnToolsAreUnderstood) {
    EXPECT_EQ(ask(hos_system_call_cloud_get_user_token_handler),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"dXNlci10b2tlbgo=\"}\n");
    EXPECT_EQ(ask(hos_system_call_cloud_get_host_site_handler),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"c2l0ZS5leGFtcGxlCg==\"}\n");
    EXPECT_EQ(ask(hos_system_call_cloud_get_xid_service_handler, R"({"section_name":"No","field_name":"No"})"),
              "{\"error_msg\":\"hos_system_call_cloud_get_xid_service_handler fail\",\"result\":-1}\n");
}

} // namespace
