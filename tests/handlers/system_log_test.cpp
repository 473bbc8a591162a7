#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const std::string kRecord = "/tmp/.vexsurveillance_log/cloud_analysis_register.dbg";

struct analysis_case {
    handler_function handler;
    const char* request;
    strings argv;
    const char* failure;
    strings incomplete; // Requests that lack one key each, or have one of another type.
};

class CloudAnalysisTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        fs::create_directories("/tmp/.vexsurveillance_log");
        fs::remove(kRecord);
    }
    host_tool agent{"/usr/local/bin/zanalytic_tool"};
};

TEST_F(CloudAnalysisTest, EachCommandRunsTheAgentWithItsArguments) {
    const analysis_case cases[] = {
        {hos_system_call_cloud_analysis_register_handler,
         R"({"provide_id":"p 1","command":"register"})",
         {"zanalytic_tool", "register", "-p", "p 1", "-c", "/share/.@analytic"},
         "{\"error_msg\":\"hos_system_call_cloud_analysis_register_handler fail\",\"result\":-1}\n",
         {R"({"provide_id":"p"})", R"({"command":"c"})", R"({"provide_id":1,"command":"c"})"}},
        {hos_system_call_cloud_analysis_send_handler,
         R"({"provide_id":"p1","command":"send","record_type":"","record_text":"{\"a\": \"$HOME\"}"})",
         {"zanalytic_tool", "send", "-p", "p1", "-r", "", "-e", "{\"a\": \"$HOME\"}"},
         "{\"error_msg\":\"hos_system_call_cloud_analysis_send_handler fail\",\"result\":-1}\n",
         {R"({"command":"c","record_type":"t","record_text":"x"})",
          R"({"provide_id":"p","record_type":"t","record_text":"x"})",
          R"({"provide_id":"p","command":"c","record_text":"x"})",
          R"({"provide_id":"p","command":"c","record_type":"t"})",
          R"({"provide_id":"p","command":"c","record_type":"t","record_text":null})"}},
        {hos_system_call_cloud_analysis_flush_handler,
         R"({"provide_id":"","command":"flush"})",
         {"zanalytic_tool", "flush", "-p", ""},
         "{\"error_msg\":\"hos_system_call_cloud_analysis_flush_handler fail\",\"result\":-1}\n",
         {R"({"provide_id":"p"})", R"({"command":"c"})", R"({"provide_id":"p","command":true})"}},
        {hos_system_call_cloud_analysis_unregister_handler,
         R"({"provide_id":"p1","command":"unregister"})",
         {"zanalytic_tool", "unregister", "-p", "p1"},
         "{\"error_msg\":\"hos_system_call_cloud_analysis_unregister_handler fail\",\"result\":-1}\n",
         {R"({"provide_id":"p"})", R"({"command":"c"})"}},
    };
    for (const analysis_case& each : cases) {
        agent.clear();
        EXPECT_EQ(ask(each.handler, each.request), "{\"result\":0}\n");
        ASSERT_EQ(agent.calls().size(), 1U);
        EXPECT_THAT(agent.calls()[0].argv, ElementsAreArray(each.argv));
        EXPECT_THAT(agent.calls()[0].env, IsEmpty());
        agent.exits(1);
        EXPECT_EQ(ask(each.handler, each.request), each.failure);
        agent.clear();
        for (const std::string& request : each.incomplete) {
            EXPECT_EQ(ask(each.handler, request), kPaserFail) << request;
        }
        EXPECT_EQ(ask(each.handler, ""), kInputError);
        EXPECT_THAT(agent.calls(), IsEmpty());
    }
}

TEST_F(CloudAnalysisTest, RegisterRecordsEveryRunFailedOrNot) {
    EXPECT_EQ(ask(hos_system_call_cloud_analysis_register_handler, R"({"provide_id":"p1","command":"register"})"),
              "{\"result\":0}\n");
    EXPECT_EQ(read_file(kRecord),
              "cmd=[register]\n"
              "provide_id=[p1]\n"
              "str_cloud_analysis_register=[/usr/local/bin/zanalytic_tool register -p p1 -c /share/.@analytic]\n"
              "ret_val=[0]\n");
    agent.exits(2);
    EXPECT_EQ(ask(hos_system_call_cloud_analysis_register_handler, R"({"provide_id":"","command":"r"})"),
              "{\"error_msg\":\"hos_system_call_cloud_analysis_register_handler fail\",\"result\":-1}\n");
    EXPECT_EQ(read_file(kRecord), "cmd=[r]\n"
                                  "provide_id=[]\n"
                                  "str_cloud_analysis_register=[/usr/local/bin/zanalytic_tool r -p  -c "
                                  "/share/.@analytic]\n"
                                  "ret_val=[512]\n");
}

TEST_F(CloudAnalysisTest, TheRecordedCommandLineIsCutAt511Characters) {
    const std::string whole = "/usr/local/bin/zanalytic_tool r -p  -c /share/.@analytic";
    const std::string start = "/usr/local/bin/zanalytic_tool r -p ";
    const std::string fits(511 - whole.size(), 'i');
    const auto recorded = [](const std::string& id) {
        (void)ask(hos_system_call_cloud_analysis_register_handler, R"({"command":"r","provide_id":")" + id + R"("})");
        const std::string text = read_file(kRecord);
        const std::string label = "str_cloud_analysis_register=[";
        const std::size_t from = text.find(label) + label.size();
        return text.substr(from, text.find("]\n", from) - from);
    };
    EXPECT_EQ(recorded(fits), start + fits + " -c /share/.@analytic");
    EXPECT_EQ(recorded(fits + "i"), start + fits + "i -c /share/.@analyti");
}

TEST_F(CloudAnalysisTest, ARecordThatCannotBeWrittenDoesNotFailTheCommand) {
    fs::create_directories(kRecord + "/taken");
    EXPECT_EQ(ask(hos_system_call_cloud_analysis_register_handler, R"({"provide_id":"p1","command":"register"})"),
              "{\"result\":0}\n");
    fs::remove_all(kRecord);
}

TEST_F(CloudAnalysisTest, TheRecordDoesNotFollowALink) {
    write_file("/tmp/victim", "untouched");
    ASSERT_EQ(symlink("/tmp/victim", kRecord.c_str()), 0);
    EXPECT_EQ(ask(hos_system_call_cloud_analysis_register_handler, R"({"provide_id":"p1","command":"register"})"),
              "{\"result\":0}\n");
    EXPECT_EQ(read_file("/tmp/victim"), "untouched");
    struct stat status = {};
    ASSERT_EQ(lstat(kRecord.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

class EventLogTest : public HandlerTest {
protected:
    host_tool tool{"/sbin/log_tool"};
};

TEST_F(EventLogTest, RunsTheToolAndTracesEveryArgument) {
    EXPECT_EQ(ask(hos_system_call_log_tool_handler, R"({"log_type":-2147483648,"log_mseg":"two words"})"),
              "{\"result\":0}\n");
    ASSERT_EQ(tool.calls().size(), 1U);
    EXPECT_THAT(tool.calls()[0].argv, ElementsAre("sbin/log_tool", "-t", "-2147483648", "-a", "two words"));
    EXPECT_THAT(tool.calls()[0].env, IsEmpty());
    EXPECT_THAT(logged(), ElementsAre("[hos_system_call_log_tool_handler][N] argv:2 , index:-t .",
                                      "[hos_system_call_log_tool_handler][N] argv:3 , index:-2147483648 .",
                                      "[hos_system_call_log_tool_handler][N] argv:4 , index:-a .",
                                      "[hos_system_call_log_tool_handler][N] argv:5 , index:two words ."));
}

TEST_F(EventLogTest, AnEmptyMessageIsAnEmptyArgument) {
    EXPECT_EQ(ask(hos_system_call_log_tool_handler, R"({"log_type":0,"log_mseg":""})"), "{\"result\":0}\n");
    ASSERT_EQ(tool.calls().size(), 1U);
    EXPECT_THAT(tool.calls()[0].argv, ElementsAre("sbin/log_tool", "-t", "0", "-a", ""));
}

TEST_F(EventLogTest, AMessageEndsAtItsFirstNulAndKeepsBytesThatAreNoText) {
    EXPECT_EQ(ask(hos_system_call_log_tool_handler, "{\"log_type\":1,\"log_mseg\":\"\xff\xfe\\u0000gone\"}"),
              "{\"result\":0}\n");
    ASSERT_EQ(tool.calls().size(), 1U);
    EXPECT_EQ(tool.calls()[0].argv.back(), "\xff\xfe");
}

TEST_F(EventLogTest, WritesTheHostsEventLog) {
    fs::remove("/var/log/event.log");
    EXPECT_EQ(ask(hos_system_call_log_tool_handler, R"({"log_type":1,"log_mseg":"disk full"})"), "{\"result\":0}\n");
    EXPECT_EQ(read_file("/var/log/event.log"), "-t 1 -a disk full\n");
}

TEST_F(EventLogTest, ReportsAFailedTool) {
    tool.exits(1);
    EXPECT_EQ(ask(hos_system_call_log_tool_handler, R"({"log_type":1,"log_mseg":"m"})"),
              "{\"error_msg\":\"hos_system_call_log_tool_handler fail\",\"result\":-1}\n");
}

TEST_F(EventLogTest, RefusesTypesThatAreNoWholeNumberOf32Bits) {
    for (const char* type : {"\"1\"", "true", "1.5", "2147483648", "null", "[1]"}) {
        EXPECT_EQ(ask(hos_system_call_log_tool_handler, R"({"log_mseg":"m","log_type":)" + std::string(type) + "}"),
                  kPaserFail)
            << type;
    }
    EXPECT_EQ(ask(hos_system_call_log_tool_handler, R"({"log_type":1,"log_msg":"the right spelling"})"), kPaserFail);
    EXPECT_EQ(ask(hos_system_call_log_tool_handler, "{"), kInputError);
    EXPECT_THAT(tool.calls(), IsEmpty());
}

class ConnectionLogTest : public HandlerTest {
protected:
    static constexpr const char* kRequest = R"({"log_type":1,"service_type":-2,"action_type":3,"log_mseg":"m 1",)"
                                            R"("user_name":"","IP":"192.0.2.1","computer_name":"pc"})";
    host_tool tool{"/sbin/conn_log_tool"};
};

TEST_F(ConnectionLogTest, RunsTheToolAndTracesAllValuesOnce) {
    EXPECT_EQ(ask(hos_system_conn_log_tool_handler, kRequest), "{\"result\":0}\n");
    ASSERT_EQ(tool.calls().size(), 1U);
    EXPECT_THAT(tool.calls()[0].argv, ElementsAre("sbin/conn_log_tool", "-t", "1", "-i", "-2", "-n", "3", "-a", "m 1",
                                                  "-u", "", "-p", "192.0.2.1", "-m", "pc"));
    EXPECT_THAT(tool.calls()[0].env, IsEmpty());
    EXPECT_THAT(logged(), ElementsAre("[hos_system_conn_log_tool_handler][N] LogType:1 , ServiceType:-2, ActionType:3, "
                                      "LogMsg:m 1, UserName:, IP:192.0.2.1, ComputerName:pc ."));
}

TEST_F(ConnectionLogTest, ReportsAFailedToolUnderTheEventLogsName) {
    tool.exits(1);
    EXPECT_EQ(ask(hos_system_conn_log_tool_handler, kRequest),
              "{\"error_msg\":\"hos_system_call_log_tool_handler fail\",\"result\":-1}\n");
    ASSERT_EQ(logged().size(), 2U);
    EXPECT_EQ(logged()[1], "[hos_system_conn_log_tool_handler][N] fail .");
}

TEST_F(ConnectionLogTest, EveryKeyIsRequired) {
    for (const char* key :
         {"log_type", "service_type", "action_type", "log_mseg", "user_name", "IP", "computer_name"}) {
        std::string request = kRequest;
        request.replace(request.find(key), 1, "_");
        EXPECT_EQ(ask(hos_system_conn_log_tool_handler, request), kPaserFail) << key;
    }
    EXPECT_EQ(ask(hos_system_conn_log_tool_handler, ""), kInputError);
    EXPECT_THAT(logged(), ElementsAre("[hos_system_conn_log_tool_handler][N] ks_io input fail."));
    EXPECT_THAT(tool.calls(), IsEmpty());
}

TEST_F(ConnectionLogTest, RefusesTypesThatAreNoWholeNumberOf32Bits) {
    for (const std::string key : {R"("log_type":1)", R"("service_type":-2)", R"("action_type":3)"}) {
        for (const char* wrong : {"\"1\"", "true", "1.5", "2147483648", "-2147483649", "null", "[1]"}) {
            std::string request = kRequest;
            request.replace(request.find(key), key.size(), key.substr(0, key.find(':') + 1) + wrong);
            EXPECT_EQ(ask(hos_system_conn_log_tool_handler, request), kPaserFail) << request;
        }
    }
    EXPECT_THAT(tool.calls(), IsEmpty());
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ConnectionLogTest, RefusesTextsThatAreNone) {
    for (const std::string key :
         {R"("log_mseg":"m 1")", R"("user_name":"")", R"("IP":"192.0.2.1")", R"("computer_name":"pc")"}) {
        for (const char* wrong : {"1", "true", "null", "{}"}) {
            std::string request = kRequest;
            request.replace(request.find(key), key.size(), key.substr(0, key.find(':') + 1) + wrong);
            EXPECT_EQ(ask(hos_system_conn_log_tool_handler, request), kPaserFail) << request;
        }
    }
    EXPECT_THAT(tool.calls(), IsEmpty());
}

} // namespace
