// The host as a cloud device: its devices, its status and its serial number, asked over a real service, with the
// simulated host's tools behind it.
#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"

#include <gmock/gmock.h>

#include <csignal>

namespace {

constexpr const char* kSerial = "{\"result\":0,\"result_out\":\"c2VyaWFsCg==\"}\n";
constexpr const char* kUid = "{\"result\":0,\"result_out\":\"dWlkCg==\"}\n";

class CloudDeviceTest : public HandlerTest {
protected:
    host_tool device_tool{"/usr/local/bin/nimbo_device_tool"};
    host_tool cloud_tool{"/usr/sbin/nimbo_tool"};
    host_tool board_uid{"/sbin/board_uid"};
    host_tool board_serial{"/sbin/board_serial"};
};

TEST_F(CloudDeviceTest, TheDeviceHandlersRemoveTheirFileWithoutATrace) {
    programs.replace_by_script("/usr/local/bin/nimbo_device_tool", kRemoveKeptFiles);
    programs.replace_by_script("/sbin/board_serial", kRemoveKeptFiles);
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler), "{\"device_list\":\"\",\"result\":0}\n");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_info_handler), "{\"device_info\":\"\",\"result\":0}\n");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_status_handler), "{\"device_status\":\"\",\"result\":0}\n");
    EXPECT_EQ(ask(hos_get_hwsn_handler), "{\"result\":0,\"result_out\":\"\"}\n");
    EXPECT_EQ(log(), "");
}

TEST_F(CloudDeviceTest, TheDeviceListIsAnsweredAsItIs) {
    device_tool.answers("[\"a\"]\n");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler),
              "{\"device_list\":\"[\\\"a\\\"]\\n\",\"result\":0}\n");
    const auto calls = device_tool.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv, (strings{"usr/local/bin/nimbo_device_tool", "get_device_list", "-d", "TALKROOM_IOS"}));
    EXPECT_TRUE(calls[0].env.empty());
    device_tool.answers("");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler), "{\"device_list\":\"\",\"result\":0}\n");
    device_tool.exits(1);
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler),
              "{\"error_msg\":\"hos_system_call_cloud_get_device_list_handler fail\",\"result\":-1}\n");
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(CloudDeviceTest, ALongDeviceListIsAnsweredWhole) {
    const std::string list(300000, 'd');
    device_tool.answers(list);
    const auto reply = ask(hos_system_call_cloud_get_device_list_handler);
    EXPECT_TRUE(reply == "{\"device_list\":\"" + list + "\",\"result\":0}\n"); // compared without being printed
}

TEST_F(CloudDeviceTest, TheDeviceInformationIsAnsweredInBase64) {
    device_tool.answers("info\n");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_info_handler), "{\"device_info\":\"aW5mbwo=\",\"result\":0}\n");
    const auto calls = device_tool.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv, (strings{"usr/local/bin/nimbo_device_tool", "get_device_info"}));
    EXPECT_TRUE(calls[0].env.empty());
    device_tool.exits(9);
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_info_handler),
              "{\"error_msg\":\"hos_system_call_cloud_get_device_info_handler fail\",\"result\":-1}\n");
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(CloudDeviceTest, KeptTheDeviceStatusIsWhatBothStreamsSay) {
    device_tool.complains("warning\n").answers("online\n");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_status_handler),
              "{\"device_status\":\"d2FybmluZwpvbmxpbmUK\",\"result\":0}\n");
    const auto calls = device_tool.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv, (strings{"usr/local/bin/nimbo_device_tool", "get_device_status"}));
    EXPECT_TRUE(calls[0].env.empty());
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(CloudDeviceTest, KeptAFailedDeviceStatusCarriesItsExitStatusAndItsOutput) {
    device_tool.complains("warning\n").answers("offline\n").exits(1);
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_status_handler),
              "{\"device_status\":\"d2FybmluZwpvZmZsaW5lCg==\",\"error_msg\":"
              "\"hos_system_call_cloud_get_device_status_handler fail\",\"result\":1}\n");
    device_tool.clear();
    device_tool.answers("x").dies_by(SIGKILL);
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_status_handler),
              "{\"device_status\":\"eA==\",\"error_msg\":\"hos_system_call_cloud_get_device_status_handler fail\","
              "\"result\":9}\n")
        << "the raw status of a tool that did not exit";
    programs.take_away("/usr/local/bin/nimbo_device_tool");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_status_handler),
              "{\"device_status\":\"\",\"error_msg\":\"hos_system_call_cloud_get_device_status_handler fail\","
              "\"result\":127}\n");
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(CloudDeviceTest, TheProbesFirstLineChoosesTheSerialTool) {
    struct probe_case {
        const char* printed;
        bool cloud;
    };
    const probe_case cases[] = {{"VHOS_CLD\n", true},   {"VHOS_CLD", true},     {"VHOS_CLD\nmore\n", true},
                                {"VHOS_CLD \n", false}, {" VHOS_CLD\n", false}, {"\nVHOS_CLD\n", false},
                                {"VHOS\n", false},      {"vhos_cld\n", false},  {"", false}};
    board_uid.answers("uid\n");
    board_serial.answers("serial\n");
    for (const probe_case& each : cases) {
        cloud_tool.clear();
        cloud_tool.answers(each.printed);
        EXPECT_EQ(ask(hos_get_hwsn_handler), each.cloud ? kUid : kSerial) << each.printed;
        const auto calls = cloud_tool.calls();
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls[0].argv, (strings{"usr/sbin/nimbo_tool", "-d"}));
        EXPECT_TRUE(calls[0].env.empty());
    }
    EXPECT_EQ(board_uid.calls().size(), 3U);
    EXPECT_EQ(board_uid.calls()[0].argv, strings{"sbin/board_uid"});
    EXPECT_TRUE(board_uid.calls()[0].env.empty());
    EXPECT_EQ(board_serial.calls().size(), 6U);
    EXPECT_EQ(board_serial.calls()[0].argv, strings{"sbin/board_serial"});
    EXPECT_TRUE(board_serial.calls()[0].env.empty());
    EXPECT_TRUE(kept_files().empty());
}

TEST_F(CloudDeviceTest, AFailedProbeStillDecidesByWhatItPrinted) {
    board_uid.answers("uid\n");
    board_serial.answers("serial\n");
    cloud_tool.answers("VHOS_CLD\n").exits(1);
    EXPECT_EQ(ask(hos_get_hwsn_handler), kUid);
    programs.take_away("/usr/sbin/nimbo_tool");
    EXPECT_EQ(ask(hos_get_hwsn_handler), kSerial);
}

TEST_F(CloudDeviceTest, AProbeThatOnlyComplainsSaysNothing) {
    board_uid.answers("uid\n");
    board_serial.answers("serial\n");
    cloud_tool.complains("VHOS_CLD\n").answers("");
    EXPECT_EQ(ask(hos_get_hwsn_handler), kSerial);
    EXPECT_TRUE(board_uid.calls().empty());
}

TEST_F(CloudDeviceTest, AProbeThatIsKilledStillDecidesByWhatItPrinted) {
    board_uid.answers("uid\n");
    board_serial.answers("serial\n");
    cloud_tool.answers("VHOS_CLD\n").dies_by(SIGKILL);
    EXPECT_EQ(ask(hos_get_hwsn_handler), kUid);
    cloud_tool.answers("");
    EXPECT_EQ(ask(hos_get_hwsn_handler), kSerial);
}

TEST_F(CloudDeviceTest, AFailedSerialToolIsAFailureWhicheverItIs) {
    for (const char* board : {"VHOS\n", "VHOS_CLD\n"}) {
        cloud_tool.answers(board);
        host_tool& tool = board == std::string("VHOS\n") ? board_serial : board_uid;
        tool.answers("number\n").exits(1);
        EXPECT_EQ(ask(hos_get_hwsn_handler), failure("hos_get_hwsn_handler")) << board;
        tool.clear();
        tool.answers("number\n").dies_by(SIGKILL);
        EXPECT_EQ(ask(hos_get_hwsn_handler), failure("hos_get_hwsn_handler")) << board;
        EXPECT_EQ(tool.calls().size(), 1U) << board;
        programs.take_away(tool.path());
        EXPECT_EQ(ask(hos_get_hwsn_handler), failure("hos_get_hwsn_handler")) << board;
    }
    EXPECT_TRUE(kept_files().empty());
    EXPECT_EQ(log(), "");
}

TEST_F(CloudDeviceTest, WhatTheToolsComplainOfIsDiscarded) {
    device_tool.complains("not wanted").answers("foo");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler), "{\"device_list\":\"foo\",\"result\":0}\n");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_info_handler), "{\"device_info\":\"Zm9v\",\"result\":0}\n");
    board_uid.complains("not wanted").answers("uid\n");
    board_serial.complains("not wanted").answers("serial\n");
    cloud_tool.answers("VHOS_CLD\n");
    EXPECT_EQ(ask(hos_get_hwsn_handler), kUid);
    cloud_tool.answers("");
    EXPECT_EQ(ask(hos_get_hwsn_handler), kSerial);
    for (const host_tool& tool : {device_tool, board_uid, board_serial, cloud_tool}) {
        ASSERT_FALSE(tool.calls().empty()) << tool.path();
        for (const tool_call& call : tool.calls()) {
            ASSERT_GT(call.targets.size(), 2U);
            EXPECT_EQ(call.targets[2], "/dev/null") << tool.path(); // standard error
        }
    }
}

TEST_F(CloudDeviceTest, AListOrInformationToolThatIsKilledOrNotThereIsAFailure) {
    const auto both_fail = [] {
        EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler),
                  failure("hos_system_call_cloud_get_device_list_handler"));
        EXPECT_EQ(ask(hos_system_call_cloud_get_device_info_handler),
                  failure("hos_system_call_cloud_get_device_info_handler"));
        EXPECT_TRUE(kept_files().empty());
    };
    device_tool.answers("foo").dies_by(SIGKILL);
    both_fail();
    EXPECT_EQ(device_tool.calls().size(), 2U);
    programs.take_away(device_tool.path());
    both_fail();
    EXPECT_EQ(log(), "");
}

TEST_F(CloudDeviceTest, TheCommandsTakeAnyRequest) {
    device_tool.answers("foo");
    board_serial.answers("serial\n");
    for (const char* request : {"{", "not json", "[]", "null"}) {
        EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler, request),
                  "{\"device_list\":\"foo\",\"result\":0}\n");
        EXPECT_EQ(ask(hos_system_call_cloud_get_device_info_handler, request),
                  "{\"device_info\":\"Zm9v\",\"result\":0}\n");
        EXPECT_EQ(ask(hos_system_call_cloud_get_device_status_handler, request),
                  "{\"device_status\":\"Zm9v\",\"result\":0}\n");
        EXPECT_EQ(ask(hos_get_hwsn_handler, request), kSerial);
    }
    EXPECT_EQ(log(), "");
}

TEST_F(CloudDeviceTest, TheDeviceListIsEscapedAsAJsonTextHasToBe) {
    device_tool.answers("quote \" backslash \\ tab \t bell \a umlaut \xc3\xa4 end");
    EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler),
              "{\"device_list\":\"quote \\\" backslash \\\\ tab \\t bell \\u0007 umlaut \\u00e4 end\","
              "\"result\":0}\n");
}

TEST_F(CloudDeviceTest, ADeviceListThatIsNoTextIsStillAReplyThatReadersAccept) {
    struct odd_case {
        std::string printed;
        const char* reply;
    };
    const odd_case cases[] = {{"a\xff\xfe z", "{\"device_list\":\"a\\ufffd\\ufffd z\",\"result\":0}\n"},
                              {"a\xc3", "{\"device_list\":\"a\\ufffd\",\"result\":0}\n"},
                              {std::string("a\0b", 3), "{\"device_list\":\"a\\u0000b\",\"result\":0}\n"}};
    for (const odd_case& each : cases) {
        device_tool.answers(each.printed);
        EXPECT_EQ(ask(hos_system_call_cloud_get_device_list_handler), each.reply);
    }
}

} // namespace
