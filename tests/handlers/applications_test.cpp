// Package programs, asked over a real service, with the simulated host's script and tool behind them.
#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "privileges.h"
#include "shortage.h"

#include <gmock/gmock.h>

#include <csignal>

namespace {

class InstallAppTest : public HandlerTest {
protected:
    host_tool script{"/share/ZpkgCenter/script/operate_zpkgcenter_app.sh"};
    host_tool root_script{"/script/operate_zpkgcenter_app.sh"};
};

constexpr const char* kInstall = R"({"sys_install_folder":"/share/ZpkgCenter","app_file_path":"/tmp/a b.zpkg"})";
constexpr const char* kInstalled = "{\n\t\"cli_ret\" : 0,\n\t\"result\" : 0,\n\t\"result_out\" : \"ZG9uZQo=\"\n}";

TEST_F(InstallAppTest, TheScriptInstallsThePackageFile) {
    script.answers("done\n");
    EXPECT_EQ(ask(hos_install_app_handler, kInstall), kInstalled);
    const auto calls = script.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv, (strings{"operate_zpkgcenter_app.sh", "install", "/tmp/a b.zpkg"}));
    EXPECT_TRUE(calls[0].env.empty());
    EXPECT_TRUE(kept_files().empty());
}

// The whole log of a run, the line feed at the end of the output included.
strings install_log(const std::string& outcome) {
    return {"[hos_install_app_handler][N] argv[0] = [operate_zpkgcenter_app.sh]",
            "[hos_install_app_handler][N] argv[1] = [install]",
            "[hos_install_app_handler][N] argv[2] = [/tmp/a b.zpkg]",
            "[hos_install_app_handler][N] argv[3] = [(null)]",
            "[hos_install_app_handler][N] exec /share/ZpkgCenter/script/operate_zpkgcenter_app.sh " + outcome,
            "]"};
}

TEST_F(InstallAppTest, TheRunIsTracedOnceAndInOrder) {
    script.answers("done\n");
    (void)ask(hos_install_app_handler, kInstall);
    EXPECT_EQ(logged(), install_log("succ, ret_out=[done"));
    script.answers("disk full\n").exits(4);
    forget_log();
    (void)ask(hos_install_app_handler, kInstall);
    EXPECT_EQ(logged(), install_log("failed, ret_out=[disk full"));
}

TEST_F(InstallAppTest, WhatTheScriptComplainsOfIsDiscarded) {
    script.complains("not wanted").answers("done\n");
    EXPECT_EQ(ask(hos_install_app_handler, kInstall), kInstalled);
    EXPECT_EQ(logged(), install_log("succ, ret_out=[done"));
    script.exits(4);
    forget_log();
    EXPECT_EQ(ask(hos_install_app_handler, kInstall), std::nullopt);
    EXPECT_EQ(logged(), install_log("failed, ret_out=[done"));
}

TEST_F(InstallAppTest, AScriptThatIsKilledGivesNoReplyAndLeavesItsOutput) {
    script.answers("half\n").dies_by(SIGKILL);
    EXPECT_EQ(ask(hos_install_app_handler, kInstall), std::nullopt);
    EXPECT_EQ(logged(), install_log("failed, ret_out=[half"));
    ASSERT_EQ(kept_files().size(), 1U);
    EXPECT_EQ(read_file(kept_files()[0]), "half\n");
}

int install_without_temporary_files(ks_io* io, int fd) {
    run_without_temporary_files([&] { (void)hos_install_app_handler(io, fd); });
    return 0;
}

TEST_F(InstallAppTest, WithoutATemporaryFileNothingRunsAndThereIsNoReply) {
    SKIP_UNLESS(may_mount(), "mounts an empty /tmp, which takes CAP_SYS_ADMIN");
    EXPECT_EQ(ask(install_without_temporary_files, kInstall), std::nullopt);
    EXPECT_EQ(last_logged(), "[hos_install_app_handler][N] exec /share/ZpkgCenter/script/operate_zpkgcenter_app.sh "
                             "failed, ret_out=[]");
    EXPECT_TRUE(script.calls().empty());
}

TEST_F(InstallAppTest, KeptTheDaemonsOwnEnvironmentIsMarkedAndTheScriptsIsNot) {
    ASSERT_EQ(::getenv("ZPKGD"), nullptr);
    (void)ask(hos_install_app_handler, kInstall);
    EXPECT_STREQ(::getenv("ZPKGD"), "ALLOW");
    (void)ask(hos_install_app_handler, kInstall);
    ASSERT_EQ(script.calls().size(), 2U);
    EXPECT_TRUE(script.calls()[1].env.empty());
}

TEST_F(InstallAppTest, WithoutAFolderTheScriptIsLookedForBelowTheRoot) {
    root_script.answers("done\n");
    EXPECT_EQ(ask(hos_install_app_handler, R"({"app_file_path":"/a"})"), kInstalled);
    EXPECT_EQ(ask(hos_install_app_handler, "{}"), kInstalled);
    const auto calls = root_script.calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].argv, (strings{"operate_zpkgcenter_app.sh", "install", "/a"}));
    EXPECT_EQ(calls[1].argv, (strings{"operate_zpkgcenter_app.sh", "install", ""}));
}

TEST_F(InstallAppTest, TheVolumeChangesNothing) {
    script.answers("done\n");
    EXPECT_EQ(ask(hos_install_app_handler, kInstall), kInstalled);
    EXPECT_EQ(ask(hos_install_app_handler, R"({"sys_install_folder":"/share/ZpkgCenter",)"
                                           R"("app_file_path":"/tmp/a b.zpkg","install_volume":"/share/V2"})"),
              kInstalled);
    const auto calls = script.calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].argv, calls[1].argv);
    EXPECT_EQ(calls[0].env, calls[1].env);
}

TEST_F(InstallAppTest, KeptAFailedScriptGivesNoReplyAndLeavesItsOutput) {
    script.answers("disk full\n").exits(4);
    EXPECT_EQ(ask(hos_install_app_handler, kInstall), std::nullopt);
    EXPECT_THAT(log(), testing::ContainsRegex("\\[hos_install_app_handler\\]\\[[0-9]+\\] exec "
                                              "/share/ZpkgCenter/script/operate_zpkgcenter_app.sh failed, "
                                              "ret_out=\\[disk full\n\\]\n"));
    const strings kept = kept_files();
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_EQ(read_file(kept[0]), "disk full\n");
}

TEST_F(InstallAppTest, AScriptThatIsNotThereGivesNoReply) {
    EXPECT_EQ(ask(hos_install_app_handler, R"({"sys_install_folder":"/nowhere"})"), std::nullopt);
    EXPECT_THAT(log(), testing::HasSubstr("exec /nowhere/script/operate_zpkgcenter_app.sh failed, ret_out=[]"));
}

TEST_F(InstallAppTest, AnUnreadableRequestIsAnInputErrorWithItsReason) {
    for (const char* text : {"", "{", "install", R"({"app_file_path":"/a")"}) {
        EXPECT_EQ(ask(hos_install_app_handler, text), "{\"error_code\":-1,\"error_msg\":\"input error\"}\n") << text;
    }
    EXPECT_THAT(log(), testing::ContainsRegex("\\[hos_install_app_handler\\]\\[[0-9]+\\] parse strInputArg failed, "
                                              "error=\\[\\* Line 1, Column 1\n"));
    EXPECT_TRUE(root_script.calls().empty());
    EXPECT_EQ(::getenv("ZPKGD"), nullptr);
}

TEST_F(InstallAppTest, ARequestThatIsNoObjectOrHoldsNoTextIsAnInputError) {
    for (const char* text : {"null", "[]", "\"a\"", "7", R"({"sys_install_folder":["/a"]})", R"({"app_file_path":{}})",
                             R"({"install_volume":[]})"}) {
        EXPECT_EQ(ask(hos_install_app_handler, text), "{\"error_code\":-1,\"error_msg\":\"input error\"}\n") << text;
    }
    EXPECT_TRUE(root_script.calls().empty());
}

TEST_F(InstallAppTest, NumbersAndBooleansAreTakenAsTextAndNullAsNone) {
    root_script.answers("done\n");
    EXPECT_EQ(ask(hos_install_app_handler, R"({"app_file_path":12})"), kInstalled);
    EXPECT_EQ(ask(hos_install_app_handler, R"({"app_file_path":true})"), kInstalled);
    EXPECT_EQ(ask(hos_install_app_handler, R"({"app_file_path":null,"sys_install_folder":null})"), kInstalled);
    const auto calls = root_script.calls();
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].argv[2], "12");
    EXPECT_EQ(calls[1].argv[2], "true");
    EXPECT_EQ(calls[2].argv[2], "");
}

TEST_F(InstallAppTest, TextsEndAtTheirNul) {
    script.answers("done\n");
    EXPECT_EQ(ask(hos_install_app_handler,
                  R"({"sys_install_folder":"/share/ZpkgCenter\u0000/x","app_file_path":"/a\u0000b"})"),
              kInstalled);
    ASSERT_EQ(script.calls().size(), 1U);
    EXPECT_EQ(script.calls()[0].argv[2], "/a");
}

TEST_F(InstallAppTest, TheScriptsPathIsCutTo1023Characters) {
    const std::string tail = "/script/operate_zpkgcenter_app.sh";
    const std::string fits = "/" + std::string(1022 - tail.size(), 'f');
    EXPECT_EQ(ask(hos_install_app_handler, "{\"sys_install_folder\":\"" + fits + "\"}"), std::nullopt);
    EXPECT_THAT(log(), testing::HasSubstr("exec " + fits + tail + " failed"));
    EXPECT_EQ(ask(hos_install_app_handler, "{\"sys_install_folder\":\"" + fits + "f\"}"), std::nullopt);
    EXPECT_THAT(log(), testing::HasSubstr("argv[0] = [operate_zpkgcenter_app.s]"));
    EXPECT_THAT(log(), testing::HasSubstr("exec " + fits + "f/script/operate_zpkgcenter_app.s failed"));
}

class AgentCliTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        registry("[VexHubServer]\nInstall_Path = /share/VexHubServer\n");
    }
    static constexpr const char* kToolName = "share/VexHubServer/ext_service/ExtVexCloudAgent/vex_agent_cli";
    static constexpr const char* kNotThere = "{\"error_msg\":\"vex_agent_cli_path does not exist\",\"result\":-4}\n";
    static constexpr const char* kInputError = "{\"error_msg\":\"input error\",\"result\":-1}\n";

    host_tool agent{"/share/VexHubServer/ext_service/ExtVexCloudAgent/vex_agent_cli"};
};

TEST_F(AgentCliTest, TheArgumentsAreHandedOnInOrder) {
    agent.answers("fine\n");
    EXPECT_EQ(ask(vex_agent_cli_handler, R"({"opt":["status","-v","a b"]})"),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"ZmluZQo=\"}\n");
    const auto calls = agent.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv, (strings{kToolName, "status", "-v", "a b"}));
    EXPECT_TRUE(calls[0].env.empty());
    EXPECT_TRUE(kept_files().empty());
    EXPECT_THAT(log(), testing::HasSubstr("[vex_agent_cli_handler] args=[status,-v,a b,], \n"));
    EXPECT_THAT(log(), testing::HasSubstr("[vex_agent_cli_handler] ret=[0][fine\n]\n"));
}

TEST_F(AgentCliTest, WithoutArgumentsTheToolStillRuns) {
    agent.answers("");
    for (const char* text : {R"({"opt":[]})", "{}", R"({"opt":null})", R"({"other":1})"}) {
        EXPECT_EQ(ask(vex_agent_cli_handler, text), "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n") << text;
    }
    const auto calls = agent.calls();
    ASSERT_EQ(calls.size(), 4U);
    for (const tool_call& call : calls) {
        EXPECT_EQ(call.argv, strings{kToolName});
    }
    EXPECT_THAT(log(), testing::HasSubstr("[vex_agent_cli_handler] args=[], \n"));
}

TEST_F(AgentCliTest, KeptAFailedToolShowsInItsRawStatusAlone) {
    agent.answers("bad\n").exits(3);
    EXPECT_EQ(ask(vex_agent_cli_handler, R"({"opt":["x"]})"),
              "{\"cli_ret\":768,\"result\":0,\"result_out\":\"YmFkCg==\"}\n");
    EXPECT_THAT(log(), testing::HasSubstr("[vex_agent_cli_handler] ret=[768][bad\n]\n"));
    agent.clear();
    agent.answers("").dies_by(SIGKILL);
    EXPECT_EQ(ask(vex_agent_cli_handler, R"({"opt":["x"]})"), "{\"cli_ret\":9,\"result\":0,\"result_out\":\"\"}\n");
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(AgentCliTest, WhatTheToolComplainsOfIsDiscarded) {
    agent.complains("not wanted").answers("fine");
    EXPECT_EQ(ask(vex_agent_cli_handler, R"({"opt":["x"]})"),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"ZmluZQ==\"}\n");
    EXPECT_EQ(logged(), (strings{"[vex_agent_cli_handler] args=[x,], ", "[vex_agent_cli_handler] ret=[0][fine]"}));
    agent.exits(1);
    forget_log();
    EXPECT_EQ(ask(vex_agent_cli_handler, R"({"opt":["x"]})"),
              "{\"cli_ret\":256,\"result\":0,\"result_out\":\"ZmluZQ==\"}\n");
    EXPECT_EQ(logged(), (strings{"[vex_agent_cli_handler] args=[x,], ", "[vex_agent_cli_handler] ret=[256][fine]"}));
}

int agent_without_temporary_files(ks_io* io, int fd) {
    run_without_temporary_files([&] { (void)vex_agent_cli_handler(io, fd); });
    return 0;
}

TEST_F(AgentCliTest, WithoutATemporaryFileNothingRunsWhichShowsInTheStatusAlone) {
    SKIP_UNLESS(may_mount(), "mounts an empty /tmp, which takes CAP_SYS_ADMIN");
    EXPECT_EQ(ask(agent_without_temporary_files, R"({"opt":["x"]})"),
              "{\"cli_ret\":-1,\"result\":0,\"result_out\":\"\"}\n");
    EXPECT_EQ(logged(), (strings{"[vex_agent_cli_handler] args=[x,], ", "[vex_agent_cli_handler] ret=[-1][]"}));
    EXPECT_TRUE(agent.calls().empty());
}

TEST_F(AgentCliTest, AToolThatCannotBeExecutedShowsInItsRawStatusAlone) {
    programs.replace_by_plain_file(agent.path());
    EXPECT_EQ(ask(vex_agent_cli_handler, "{}"), "{\"cli_ret\":32512,\"result\":0,\"result_out\":\"\"}\n");
}

TEST_F(AgentCliTest, ScalarsAreTakenAsText) {
    EXPECT_EQ(ask(vex_agent_cli_handler, R"({"opt":[5,true,null,"s\u0000t"]})"),
              "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n");
    ASSERT_EQ(agent.calls().size(), 1U);
    EXPECT_EQ(agent.calls()[0].argv, (strings{kToolName, "5", "true", "", "s"}));
}

TEST_F(AgentCliTest, AnUnreadableRequestIsAnInputErrorInTheResult) {
    for (const char* text : {"", "{", "status", "[\"status\"]", "null", "7", R"({"opt":"status"})", R"({"opt":{}})",
                             R"({"opt":[["status"]]})", R"({"opt":["a",{}]})"}) {
        EXPECT_EQ(ask(vex_agent_cli_handler, text), kInputError) << text;
    }
    EXPECT_THAT(log(), testing::ContainsRegex(R"(\[vex_agent_cli_handler\]\[[0-9]+\] ks_io input fail\.)"));
    EXPECT_TRUE(agent.calls().empty());
}

TEST_F(AgentCliTest, AToolThatIsNotThereIsToldBeforeTheRequestIsLookedAt) {
    programs.take_away(agent.path());
    for (const char* text : {R"({"opt":["status"]})", "{", ""}) {
        EXPECT_EQ(ask(vex_agent_cli_handler, text), kNotThere) << text;
    }
    EXPECT_THAT(log(),
                testing::ContainsRegex("\\[vex_agent_cli_handler\\]\\[[0-9]+\\] vex_agent_cli_path does not "
                                       "exist: /share/VexHubServer/ext_service/ExtVexCloudAgent/vex_agent_cli\n"));
    EXPECT_THAT(log(), testing::Not(testing::HasSubstr("ks_io input fail")));
}

TEST_F(AgentCliTest, WithoutAnInstallPathThereIsNoTool) {
    registry("[VexHubServer]\nOther = 1\n");
    EXPECT_EQ(ask(vex_agent_cli_handler, "not json"), kNotThere);
    EXPECT_THAT(log(), testing::ContainsRegex("\\]\\[[0-9]+\\] vex_agent_cli_path does not exist: \n"));
    EXPECT_THAT(log(), testing::Not(testing::HasSubstr("ks_io input fail")));
}

} // namespace
