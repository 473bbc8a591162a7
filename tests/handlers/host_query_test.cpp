#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

constexpr const char* kControlScript = "/share/VexHubServer/VexHubServer.sh";

class HostQueryTest : public HandlerTest {
protected:
    host_tool cfgread{"/sbin/cfgread"};
    host_tool hwctl{"/sbin/hwctl"};
};

TEST_F(HostQueryTest, TestSaysWhoAnswers) {
    EXPECT_EQ(ask(hos_test_handler), "{\"handler\":\"test_handler\",\"service\":\"VexHubServer-vexprod\"}\n");
    EXPECT_EQ(ask(hos_test_handler, "not json"),
              "{\"handler\":\"test_handler\",\"service\":\"VexHubServer-vexprod\"}\n");
}

TEST_F(HostQueryTest, TheMailServicesTestSaysWhoAnswers) {
    EXPECT_EQ(ask(hos_test_sendmail_srv_handler), "{\"handler\":\"hos_test_sendmail_srv_handler\",\"service\":"
                                                  "\"VexHubServer_send_mail-vexprod\"}\n");
}

TEST_F(HostQueryTest, ExecCliReturnsWhatTheProgramPrinted) {
    EXPECT_EQ(ask(hos_exec_cli_handler, R"({"command":["/bin/echo","hi"]})"),
              "{\"error_code\":0,\"handler\":\"exec_cli_handler\",\"result\":\"hi\\n\",\"service\":"
              "\"VexHubServer-vexprod\"}\n");
}

TEST_F(HostQueryTest, ExecCliIgnoresThatTheProgramFailed) {
    EXPECT_EQ(ask(hos_exec_cli_handler, R"({"command":["/bin/sh","-c","echo out; exit 3"]})"),
              "{\"error_code\":0,\"handler\":\"exec_cli_handler\",\"result\":\"out\\n\",\"service\":"
              "\"VexHubServer-vexprod\"}\n");
    EXPECT_EQ(ask(hos_exec_cli_handler, R"({"command":["/no/such/program"]})"),
              "{\"error_code\":0,\"handler\":\"exec_cli_handler\",\"result\":\"\",\"service\":"
              "\"VexHubServer-vexprod\"}\n");
}

TEST_F(HostQueryTest, ExecCliRefusesTextThatIsNotJson) {
    for (const char* text : {"", "echo hi", "{\"command\":"}) {
        EXPECT_EQ(ask(hos_exec_cli_handler, text),
                  "{\"error_code\":-1,\"error_msg\":\"Read command fail.\",\"handler\":\"exec_cli_handler\","
                  "\"service\":\"VexHubServer-vexprod\"}\n")
            << text;
    }
}

TEST_F(HostQueryTest, TvLoungeStatusIsTheConfiguredNumber) {
    write_file("/etc/kos.ui.cp.conf", "[CP_APP]\ntvLounge = 42abc\n");
    EXPECT_EQ(ask(hos_get_cfg_tvLounge_handler), "{\"error_code\":0,\"tvLounge_Status\":42}\n");
    const auto calls = cfgread.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv,
              (strings{"cfgread", "CP_APP", "tvLounge", "-c", "-d", "CFGREAD_FAILD", "-f", "/etc/kos.ui.cp.conf"}));
}

TEST_F(HostQueryTest, TvLoungeStatusIsDecimalAndStopsAtTheEndsOf32Bits) {
    for (const auto& [configured, status] :
         std::initializer_list<std::pair<const char*, const char*>>{{"010", "10"},
                                                                    {"0x10", "0"},
                                                                    {"2147483647", "2147483647"},
                                                                    {"2147483648", "2147483647"},
                                                                    {"99999999999999999999", "2147483647"},
                                                                    {"-2147483648", "-2147483648"},
                                                                    {"-2147483649", "-2147483648"},
                                                                    {"-99999999999999999999", "-2147483648"}}) {
        write_file("/etc/kos.ui.cp.conf", std::string("[CP_APP]\ntvLounge = ") + configured + "\n");
        EXPECT_EQ(ask(hos_get_cfg_tvLounge_handler),
                  std::string("{\"error_code\":0,\"tvLounge_Status\":") + status + "}\n");
    }
}

TEST_F(HostQueryTest, TvLoungeStatusIsZeroForTextThatIsNoNumber) {
    write_file("/etc/kos.ui.cp.conf", "[CP_APP]\ntvLounge = on\n");
    EXPECT_EQ(ask(hos_get_cfg_tvLounge_handler), "{\"error_code\":0,\"tvLounge_Status\":0}\n");
}

TEST_F(HostQueryTest, TvLoungeStatusIsZeroWithoutTheFile) {
    (void)unlink("/etc/kos.ui.cp.conf");
    EXPECT_EQ(ask(hos_get_cfg_tvLounge_handler), "{\"error_code\":0,\"tvLounge_Status\":0}\n");
}

TEST_F(HostQueryTest, PlatformDisplayNameIsTheConfiguredText) {
    write_file("/etc/platform.conf", "[MISC]\nDISPLAY_NAME = Vex 9 \"Pro\"\n");
    EXPECT_EQ(ask(hos_get_platform_display_name_handler),
              "{\"platform_display_name\":\"Vex 9 \\\"Pro\\\"\",\"result\":0}\n");
}

TEST_F(HostQueryTest, PlatformDisplayNameFailsWithoutTheEntry) {
    write_file("/etc/platform.conf", "[MISC]\nOTHER = 1\n");
    EXPECT_EQ(ask(hos_get_platform_display_name_handler),
              "{\"error_msg\":\"hos_get_platform_display_name_handler fail\",\"result\":-1}\n");
}

struct vpd_case {
    handler_function handler;
    const char* selector;
    const char* success;
    const char* failure;
};

TEST_F(HostQueryTest, ProductDataGettersAskForTheirFieldAndAnswerUnderTheirKey) {
    const vpd_case cases[] = {
        {hos_get_vpd_productnamed_handler, "enc_sys_id=root,obj_index=0:7",
         "{\"result\":0,\"vpd_productnamed\":\"VALUE 1\"}\n",
         "{\"error_msg\":\"hos_get_vpd_productnamed_handler fail\",\"result\":-1}\n"},
        {hos_get_vpd_eepkey_handler, "enc_sys_id=root,obj_index=0:8", "{\"result\":0,\"vpd_eepkey\":\"VALUE 1\"}\n",
         "{\"error_msg\":\"hos_get_vpd_eepkey_handler fail\",\"result\":-1}\n"},
        {hos_get_vpd_channel_handler, "enc_sys_id=root,obj_index=0:9", "{\"result\":0,\"vpd_channel\":\"VALUE 1\"}\n",
         "{\"error_msg\":\"hos_get_vpd_channel_handler fail\",\"result\":-1}\n"},
    };
    for (const vpd_case& each : cases) {
        hwctl.clear();
        hwctl.answers("field = VALUE 1 \n");
        EXPECT_EQ(ask(each.handler), each.success);
        hwctl.answers("a = b = c\n");
        EXPECT_EQ(ask(each.handler), each.failure);
        const auto calls = hwctl.calls();
        ASSERT_EQ(calls.size(), 2U);
        EXPECT_EQ(calls[0].argv, (strings{"hwctl", "--vpd_get_field", each.selector}));
    }
}

TEST_F(HostQueryTest, ProductDataGettersReadTheHostsOwnAnswer) {
    const auto reply = ask(hos_get_vpd_productnamed_handler);
    ASSERT_TRUE(reply);
    EXPECT_THAT(*reply, testing::StartsWith("{\"result\":0,\"vpd_productnamed\":\""));
}

TEST_F(HostQueryTest, AGenericModelIsToldByTheMarkFile) {
    (void)unlink("/etc/IS_G");
    EXPECT_EQ(ask(hos_is_generic_model_handler), "{\"is_generic\":0,\"result\":-1}\n");
    EXPECT_THAT(logged(), testing::Contains("[hos_is_generic_model_handler][N] normal."));
    write_file("/etc/IS_G", "");
    EXPECT_EQ(ask(hos_is_generic_model_handler), "{\"is_generic\":1,\"result\":0}\n");
    EXPECT_THAT(logged(), testing::Contains("[hos_is_generic_model_handler][N] is generic."));
}

TEST_F(HostQueryTest, ThisBuildIsNeverTheApplianceModel) {
    EXPECT_EQ(ask(hos_system_is_VXB_model_handler), "{\"is_VXB_model\":0,\"result\":0}\n");
    EXPECT_THAT(logged(), testing::Contains("[hos_system_is_VXB_model_handler][N] normal."));
}

// The control script: a recording tool at a path that the registry names.
class ControlScriptTest : public HostQueryTest {
protected:
    void SetUp() override {
        HostQueryTest::SetUp();
        registry(std::string("[VexHubServer]\nShell = ") + kControlScript + "\n");
    }
    host_tool script{kControlScript};
};

TEST_F(ControlScriptTest, DisableStopsThePackage) {
    EXPECT_EQ(ask(hos_system_call_vexpro_disable_handler), "{\"result\":0}\n");
    const auto calls = script.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv.back(), "force_stop");
    EXPECT_EQ(calls[0].argv.size(), 2U);
    EXPECT_TRUE(calls[0].env.empty());
}

TEST_F(ControlScriptTest, CommandsWithoutParametersTakeAnyRequest) {
    struct plain_case {
        handler_function handler;
        const char* reply;
    };
    const plain_case cases[] = {
        {hos_get_cfg_tvLounge_handler, "{\"error_code\":0,\"tvLounge_Status\":3}\n"},
        {hos_get_platform_display_name_handler, "{\"platform_display_name\":\"Vex\",\"result\":0}\n"},
        {hos_get_vpd_productnamed_handler, "{\"result\":0,\"vpd_productnamed\":\"VALUE\"}\n"},
        {hos_get_vpd_eepkey_handler, "{\"result\":0,\"vpd_eepkey\":\"VALUE\"}\n"},
        {hos_get_vpd_channel_handler, "{\"result\":0,\"vpd_channel\":\"VALUE\"}\n"},
        {hos_is_generic_model_handler, "{\"is_generic\":1,\"result\":0}\n"},
        {hos_system_is_VXB_model_handler, "{\"is_VXB_model\":0,\"result\":0}\n"},
        {hos_system_call_vexpro_disable_handler, "{\"result\":0}\n"},
        {hos_system_call_share_folder_renew_handler, "{\"result\":0}\n"},
    };
    write_file("/etc/kos.ui.cp.conf", "[CP_APP]\ntvLounge = 3\n");
    write_file("/etc/platform.conf", "[MISC]\nDISPLAY_NAME = Vex\n");
    write_file("/etc/IS_G", "");
    hwctl.answers("field = VALUE\n");
    for (const plain_case& each : cases) {
        for (const char* request : {"", "{", "not json", "[]"}) {
            EXPECT_EQ(ask(each.handler, request), each.reply) << request;
        }
    }
    EXPECT_THAT(log(), testing::Not(testing::HasSubstr("input fail")));
}

TEST_F(ControlScriptTest, DisableReportsUnderItsDoubledName) {
    script.exits(1);
    EXPECT_EQ(ask(hos_system_call_vexpro_disable_handler),
              "{\"error_msg\":\"hos_system_system_call_vexpro_disable_handler fail\",\"result\":-1}\n");
    registry("[VexHubServer]\nOther = 1\n");
    script.clear();
    EXPECT_EQ(ask(hos_system_call_vexpro_disable_handler),
              "{\"error_msg\":\"hos_system_system_call_vexpro_disable_handler fail\",\"result\":-1}\n");
    EXPECT_TRUE(script.calls().empty());
}

TEST_F(ControlScriptTest, ShareFoldersAreRenewed) {
    EXPECT_EQ(ask(hos_system_call_share_folder_renew_handler), "{\"result\":0}\n");
    const auto calls = script.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv.back(), "share_folder_renew");
    script.exits(2);
    EXPECT_EQ(ask(hos_system_call_share_folder_renew_handler),
              "{\"error_msg\":\"hos_system_call_share_folder_renew_handler fail\",\"result\":-1}\n");
}

} // namespace
