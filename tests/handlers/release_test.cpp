// What handlers opened or made, they have released when they reply: libraries, blocks of theirs, temporary files.
#include "at_reply.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "library_stand_in.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <malloc.h>
#include <string>
#include <sys/wait.h>

namespace {

struct asked {
    handler_function handler;
    std::string request;
    std::string reply;
};

class ReleaseTest : public HandlerTest {
protected:
    // Asks, and calls `look` exactly once on the way.
    template <class Look>
    static void expect_reply(const asked& each, Look look) {
        int looks = 0;
        EXPECT_EQ(ask_and_look(each.handler, each.request,
                               [&] {
                                   ++looks;
                                   look();
                               }),
                  each.reply);
        EXPECT_EQ(looks, 1) << each.reply;
    }
};

TEST_F(ReleaseTest, ALibraryIsClosedBeforeTheReply) {
    const library_stand_in sessions("/usr/lib/libhcore_nasauth.so.1.0.0");
    const library_stand_in config("/usr/lib/libhcore_config.so.0.0");
    const library_stand_in accounts("/usr/lib/libhcore_NAS.so.0.0");
    accounts.set("users", "anna\n");
    accounts.set("groups", "staff\n");
    accounts.set("members", "anna\n");
    const asked requests[] = {
        {hos_vex_auth_add_session_handler, R"({"type":1,"user":"anna","sid":"s"})", "{\"result\":0}\n"},
        {hos_vex_auth_get_session_handler, R"({"type":1,"length":9,"sid":"s"})", "{\"result\":0,\"user\":\"anna\"}\n"},
        {hos_get_sms_config_handler, "",
         "{\"country\":\"Iceland\",\"country_code\":\"354\",\"max_provider\":4,\"mode\":1,\"now_provider\":2,"
         "\"phone1\":\"5550100\",\"phone2\":\"5550101\",\"result\":0,\"using_provider\":1}\n"},
        {hos_get_all_users_handler, "", "{\"local_count\":1,\"result\":0,\"user_list\":[\"anna\"]}\n"},
        {hos_get_all_groups_handler, "", "{\"group_list\":[\"staff\"],\"local_count\":1,\"result\":0}\n"},
        {hos_get_group_members_handler, R"({"group_name":"staff"})",
         "{\"result\":0,\"user_count\":1,\"user_list\":[true]}\n"},
    };
    for (const asked& each : requests) {
        expect_reply(each, [&] {
            EXPECT_FALSE(sessions.is_open()) << each.reply;
            EXPECT_FALSE(config.is_open()) << each.reply;
            EXPECT_FALSE(accounts.is_open()) << each.reply;
        });
    }
    EXPECT_NE(sessions.calls(), "");
    EXPECT_NE(config.calls(), "");
    EXPECT_NE(accounts.calls(), "");
}

TEST_F(ReleaseTest, ALibraryWhoseFunctionFailedIsClosedBeforeTheReply) {
    const library_stand_in sessions("/usr/lib/libhcore_nasauth.so.1.0.0");
    const library_stand_in accounts("/usr/lib/libhcore_NAS.so.0.0");
    sessions.set("return", "-1");
    accounts.set("return", "-1");
    const asked requests[] = {
        {hos_vex_auth_add_session_handler, R"({"type":1,"user":"anna","sid":"s"})",
         failure("hos_vex_auth_add_session_handler")},
        {hos_vex_auth_get_session_handler, R"({"type":1,"length":9,"sid":"s"})",
         failure("hos_vex_auth_get_session_handler")},
        {hos_get_all_users_handler, "", failure("hos_get_all_users_handler")},
        {hos_get_all_groups_handler, "", failure("hos_get_all_groups_handler")},
        {hos_get_group_members_handler, R"({"group_name":"staff"})", failure("hos_get_group_members_handler")},
    };
    for (const asked& each : requests) {
        expect_reply(each, [&] {
            EXPECT_FALSE(sessions.is_open()) << each.reply;
            EXPECT_FALSE(accounts.is_open()) << each.reply;
        });
    }
}

// Lists so long that a heap that has not been used much gives each a mapping of its own, which is counted; the replies
// are shorter.
TEST_F(ReleaseTest, AListIsFreedBeforeTheReply) {
    const library_stand_in accounts("/usr/lib/libhcore_NAS.so.0.0");
    (void)mallopt(M_MMAP_THRESHOLD, 128 * 1024); // a sanitizer's heap has none, and looks for leaks by itself
    const auto repeated = [](int count, const std::string& text) {
        std::string all;
        for (int i = 0; i < count; ++i) {
            all += text;
        }
        return all;
    };
    accounts.set("users", repeated(8000, "a\n"));    // 33 bytes each
    accounts.set("groups", repeated(8000, "a\n"));   // 257 bytes each
    accounts.set("members", repeated(16000, "a\n")); // 10 bytes each
    const std::string names = repeated(7999, "\"a\",") + "\"a\"";
    const asked requests[] = {
        {hos_get_all_users_handler, "", "{\"local_count\":8000,\"result\":0,\"user_list\":[" + names + "]}\n"},
        {hos_get_all_groups_handler, "", "{\"group_list\":[" + names + "],\"local_count\":8000,\"result\":0}\n"},
        {hos_get_group_members_handler, R"({"group_name":"staff"})",
         "{\"result\":0,\"user_count\":16000,\"user_list\":[" + repeated(15999, "true,") + "true]}\n"},
    };
    const auto expect_freed = [](const asked& each) {
        EXPECT_TRUE(passes_in_own_process([&] {
            const std::size_t before = mallinfo2().hblks;
            expect_reply(each, [&] { EXPECT_EQ(mallinfo2().hblks, before); });
        }));
    };
    for (const asked& each : requests) {
        expect_freed(each);
    }
    accounts.set("return", "-1"); // with a list all the same
    expect_freed({hos_get_all_users_handler, "", failure("hos_get_all_users_handler")});
    expect_freed(
        {hos_get_group_members_handler, R"({"group_name":"staff"})", failure("hos_get_group_members_handler")});
}

// Whether this process has a child, be it one that has ended and was not waited for.
bool has_child() {
    siginfo_t unused = {};
    return waitid(P_ALL, 0, &unused, WEXITED | WNOHANG | WNOWAIT) == 0;
}

TEST_F(ReleaseTest, AToolThatIsReadFromIsWaitedForBeforeTheReply) {
    registry("[CayinMediaViewer]\nInstall_Path = /share/CayinMediaViewer\nEnable = TRUE\n");
    write_file("/etc/kos.ui.cp.conf", "[CP_APP]\ntvLounge = 3\n");
    host_tool hwctl("/sbin/hwctl");
    host_tool viewer("/share/CayinMediaViewer/bin/cfgread");
    hwctl.answers("a=b");
    viewer.answers("foo");
    const asked requests[] = {
        {hos_get_sess_id_handler, R"({"user":"admin","pwd":"secret"})", "{\"error_code\":0,\"sid\":\"s0ab12cd\"}\n"},
        {hos_get_sess_id_handler, R"({"user":"admin","pwd":"wrong"})",
         "{\"error_code\":-2,\"error_msg\":\"get_sess_id fail\"}\n"},
        {hos_get_vpd_ext_area_handler, R"({"offest":0,"length":4})", "{\"result\":0,\"vpd_ext_area\":\"a=b\"}\n"},
        {hos_get_vpd_channel_handler, "", "{\"result\":0,\"vpd_channel\":\"b\"}\n"},
        {hos_get_cfg_tvLounge_handler, "", "{\"error_code\":0,\"tvLounge_Status\":3}\n"},
        {hos_system_get_tiermount_cloud_usage_handler, R"({"full_path":"/nowhere"})",
         failure("hos_system_get_tiermount_cloud_usage_handler")},
        {hos_cmv_cli_handler, R"({"cmd":"c"})",
         "{\"cli_ret\":0,\"is_enabled\":1,\"is_installed\":1,\"result\":0,\"result_out\":\"Zm9v\"}\n"},
    };
    for (const asked& each : requests) {
        expect_reply(each, [&] { EXPECT_FALSE(has_child()) << each.reply; });
    }
}

// All commands that hand on what a tool printed.
std::vector<asked> tool_requests() {
    const std::string encoded = "{\"cli_ret\":0,\"result\":0,\"result_out\":\"Zm9v\"}\n";
    const std::string tunnel = R"({"command":"get_url","mode":"","package_name":"","callback_path":"","reg_id":""})";
    return {
        {hos_get_hwsn_handler, "", "{\"result\":0,\"result_out\":\"Zm9v\"}\n"},
        {hos_system_call_cloud_get_device_list_handler, "", "{\"device_list\":\"foo\",\"result\":0}\n"},
        {hos_system_call_cloud_get_device_info_handler, "", "{\"device_info\":\"Zm9v\",\"result\":0}\n"},
        {hos_system_call_cloud_get_device_status_handler, "", "{\"device_status\":\"Zm9v\",\"result\":0}\n"},
        {hos_system_call_cloud_get_xid_service_handler, R"({"section_name":"s","field_name":"f"})", encoded},
        {hos_system_call_cloud_get_user_token_handler, "", encoded},
        {hos_system_call_cloud_get_host_endpoint_handler, "", encoded},
        {hos_system_call_cloud_get_host_site_handler, "", encoded},
        {hos_system_call_cloud_get_access_token_handler, R"({"client_id":"i","client_secret":"s","access_token":"t"})",
         encoded},
        {hos_system_call_cloud_ncm_tunnel_agent_handler, tunnel, encoded},
        {hos_reverse_proxy_handler, "{}", encoded},
        {hos_web_kiosk_handler, R"({"action":"delete","rule_list":[{}]})", encoded},
        {hos_install_app_handler, "{}", "{\n\t\"cli_ret\" : 0,\n\t\"result\" : 0,\n\t\"result_out\" : \"Zm9v\"\n}"},
    };
}

// The same with their tools failed, as far as there is a reply then.
std::vector<asked> failed_tool_requests() {
    const std::string tunnel = R"({"command":"get_url","mode":"","package_name":"","callback_path":"","reg_id":""})";
    return {
        {hos_get_hwsn_handler, "", failure("hos_get_hwsn_handler")},
        {hos_system_call_cloud_get_device_list_handler, "", failure("hos_system_call_cloud_get_device_list_handler")},
        {hos_system_call_cloud_get_device_info_handler, "", failure("hos_system_call_cloud_get_device_info_handler")},
        {hos_system_call_cloud_get_device_status_handler, "",
         "{\"device_status\":\"Zm9v\",\"error_msg\":\"hos_system_call_cloud_get_device_status_handler fail\","
         "\"result\":3}\n"},
        {hos_system_call_cloud_get_xid_service_handler, R"({"section_name":"s","field_name":"f"})",
         failure("hos_system_call_cloud_get_xid_service_handler")},
        {hos_system_call_cloud_get_user_token_handler, "", failure("hos_system_call_cloud_get_user_token_handler")},
        {hos_system_call_cloud_get_host_endpoint_handler, "",
         failure("hos_system_call_cloud_get_host_endpoint_handler")},
        {hos_system_call_cloud_get_host_site_handler, "", failure("hos_system_call_cloud_get_host_site_handler")},
        {hos_system_call_cloud_get_access_token_handler, R"({"client_id":"i","client_secret":"s","access_token":"t"})",
         failure("hos_system_call_cloud_get_access_token_handler")},
        {hos_system_call_cloud_ncm_tunnel_agent_handler, tunnel,
         failure("hos_system_call_cloud_ncm_tunnel_agent_handler")},
    };
}

class OutputFileTest : public ReleaseTest {
protected:
    void SetUp() override {
        ReleaseTest::SetUp();
        registry("[VexHubServer]\nInstall_Path = /share/VexHubServer\n");
        for (host_tool& tool : tools) {
            tool.answers("foo");
        }
    }
    static void expect_no_file_at_the_reply(const std::vector<asked>& requests) {
        for (const asked& each : requests) {
            expect_reply(each, [&] { EXPECT_THAT(kept_files(), testing::IsEmpty()) << each.reply; });
            EXPECT_THAT(kept_files(), testing::IsEmpty()) << each.reply;
        }
    }
    std::vector<host_tool> tools = {host_tool("/sbin/cfgread"),
                                    host_tool("/sbin/board_serial"),
                                    host_tool("/usr/sbin/nimbo_tool"),
                                    host_tool("/usr/sbin/get_nimbo_host"),
                                    host_tool("/usr/sbin/reverseproxy_vexsurveillance"),
                                    host_tool("/usr/sbin/vsh"),
                                    host_tool("/usr/bin/nimbo_cli"),
                                    host_tool("/usr/local/bin/nimbo_auth_tool"),
                                    host_tool("/usr/local/bin/nimbo_device_tool"),
                                    host_tool("/usr/local/bin/nimbo_tunnel_agent_tool"),
                                    host_tool("/script/operate_zpkgcenter_app.sh")};
};

TEST_F(OutputFileTest, TheFileOfAToolsOutputIsRemovedBeforeTheReply) {
    expect_no_file_at_the_reply(tool_requests());
}

TEST_F(OutputFileTest, TheFileOfAFailedToolIsRemovedBeforeTheReply) {
    for (host_tool& tool : tools) {
        tool.exits(3);
    }
    expect_no_file_at_the_reply(failed_tool_requests());
}

TEST_F(OutputFileTest, TheAgentsFileIsRemovedBeforeTheReplyHoweverItEnded) {
    const host_tool cfgread("/sbin/cfgread"); // forgets its answer: this command reads the registry
    host_tool agent("/share/VexHubServer/ext_service/ExtVexCloudAgent/vex_agent_cli");
    agent.answers("foo");
    expect_no_file_at_the_reply(
        {{vex_agent_cli_handler, "{}", "{\"cli_ret\":0,\"result\":0,\"result_out\":\"Zm9v\"}\n"}});
    agent.exits(3);
    expect_no_file_at_the_reply(
        {{vex_agent_cli_handler, "{}", "{\"cli_ret\":768,\"result\":0,\"result_out\":\"Zm9v\"}\n"}});
}

} // namespace
