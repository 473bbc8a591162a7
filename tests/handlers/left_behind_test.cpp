// Host tools that leave a process behind, which holds their output open: the reply does not wait for it.
#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"

#include <csignal>

namespace {

using LeftBehindTest = HandlerTest;

struct left_behind_case {
    handler_function handler;
    const char* program;
    const char* answer; // of the program
    const char* request;
    std::string reply;
};

TEST_F(LeftBehindTest, TheReplyHasWhatTheToolItselfPrinted) {
    const left_behind_case cases[] = {
        {hos_get_sess_id_handler, "/sbin/zcli", "heading\\na session c\\n", R"({"user":"u","pwd":"p"})",
         "{\"error_code\":0,\"sid\":\"session\"}\n"},
        {hos_get_vpd_ext_area_handler, "/sbin/hwctl", "area\\n", R"({"offest":0,"length":4})",
         "{\"result\":0,\"vpd_ext_area\":\"area\"}\n"},
        {hos_get_vpd_channel_handler, "/sbin/hwctl", "k=channel\\n", "{}",
         "{\"result\":0,\"vpd_channel\":\"channel\"}\n"},
        {hos_system_get_tiermount_cloud_usage_handler, "/usr/bin/getfattr", "foo", R"({"full_path":"/share"})",
         "{\"result\":0,\"size_info\":\"Zm9v\"}\n"},
        {hos_cmv_cli_handler, "/share/CayinMediaViewer/bin/cfgread", "foo", R"({"cmd":"c"})",
         "{\"cli_ret\":0,\"is_enabled\":1,\"is_installed\":1,\"result\":0,\"result_out\":\"Zm9v\"}\n"},
    };
    registry("[CayinMediaViewer]\nEnable = TRUE\nInstall_Path = /share/CayinMediaViewer\n");
    const test_folder folder;
    for (const left_behind_case& each : cases) {
        SCOPED_TRACE(each.program);
        programs.replace_by_script(each.program,
                                   "sleep 300 & echo $! > " + (folder / "pid") + "; printf '" + each.answer + "'");
        EXPECT_TRUE(passes_in_own_process([&] { EXPECT_EQ(ask(each.handler, each.request), each.reply); }));
        EXPECT_EQ(::kill(std::stoi("0" + read_file(folder / "pid")), SIGKILL), 0);
    }
}

} // namespace
