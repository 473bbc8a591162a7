#include "ask.h"
#include "base64.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MediaViewerTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        registry("[CayinMediaViewer]\nEnable = TRUE\nInstall_Path = /share/CayinMediaViewer\n");
        viewer.answers("foo");
    }
    static std::string missing_reply(const std::string& path) {
        return "{\"cli_ret\":-1,\"is_enabled\":0,\"is_installed\":0,\"result\":0,\"result_out\":\"" +
               base64_text("[hos_cmv_cli_handler][4011] cmv_cli_path=[" + path + "] doesnt exist. errno=[2]") + "\"}\n";
    }
    host_tool viewer{"/share/CayinMediaViewer/bin/cfgread"};
};

TEST_F(MediaViewerTest, ReturnsWhatTheViewersToolPrinted) {
    EXPECT_EQ(ask(hos_cmv_cli_handler, R"({"cmd":"get state"})"),
              "{\"cli_ret\":0,\"is_enabled\":1,\"is_installed\":1,\"result\":0,\"result_out\":\"Zm9v\"}\n");
    ASSERT_EQ(viewer.calls().size(), 1U);
    EXPECT_THAT(viewer.calls()[0].argv, ElementsAre("cfgread", "get state"));
}

TEST_F(MediaViewerTest, TheToolHasTheDaemonsOwnEnvironment) {
    setenv("VIEWER_TEST", "inherited", 1);
    (void)ask(hos_cmv_cli_handler, R"({"cmd":"c"})");
    unsetenv("VIEWER_TEST");
    ASSERT_EQ(viewer.calls().size(), 1U);
    EXPECT_THAT(viewer.calls()[0].env, testing::Contains("VIEWER_TEST=inherited"));
}

TEST_F(MediaViewerTest, AFailedToolShowsInItsStatusAlone) {
    viewer.exits(2);
    EXPECT_EQ(ask(hos_cmv_cli_handler, R"({"cmd":""})"),
              "{\"cli_ret\":512,\"is_enabled\":1,\"is_installed\":1,\"result\":0,\"result_out\":\"Zm9v\"}\n");
}

TEST_F(MediaViewerTest, OutputLongerThanOneReadArrivesWhole) {
    const std::string output(3000, 'o');
    viewer.answers(output);
    EXPECT_EQ(ask(hos_cmv_cli_handler, R"({"cmd":"c"})"),
              "{\"cli_ret\":0,\"is_enabled\":1,\"is_installed\":1,\"result\":0,\"result_out\":\"" +
                  base64_text(output) + "\"}\n");
}

TEST_F(MediaViewerTest, EnabledIsTrueInAnyCaseAndNothingElse) {
    for (const auto& [value, enabled] : std::initializer_list<std::pair<const char*, const char*>>{
             {"true", "1"}, {"TrUe", "1"}, {"FALSE", "0"}, {"1", "0"}, {"TRUE1", "0"}, {"", "0"}}) {
        registry(std::string("[CayinMediaViewer]\nInstall_Path = /share/CayinMediaViewer\nEnable = ") + value + "\n");
        EXPECT_EQ(ask(hos_cmv_cli_handler, R"({"cmd":"c"})"), std::string("{\"cli_ret\":0,\"is_enabled\":") + enabled +
                                                                  ",\"is_installed\":1,\"result\":0,\"result_out\":"
                                                                  "\"Zm9v\"}\n")
            << value;
    }
    registry("[CayinMediaViewer]\nInstall_Path = /share/CayinMediaViewer\n");
    EXPECT_EQ(ask(hos_cmv_cli_handler, R"({"cmd":"c"})"),
              "{\"cli_ret\":0,\"is_enabled\":0,\"is_installed\":1,\"result\":0,\"result_out\":\"Zm9v\"}\n");
}

TEST_F(MediaViewerTest, KeptAMissingViewerIsAnAnswerAndWithoutAnEntryItsPathBeginsAtTheRoot) {
    registry("[CayinMediaViewer]\nInstall_Path = /share/Gone\n");
    EXPECT_EQ(ask(hos_cmv_cli_handler, R"({"cmd":"c"})"), missing_reply("/share/Gone/bin/cfgread"));
    registry("[VexHubServer]\nEnable = TRUE\n");
    EXPECT_EQ(ask(hos_cmv_cli_handler, R"({"cmd":"c"})"), missing_reply("/bin/cfgread"));
}

TEST_F(MediaViewerTest, RejectionsCarryTheStatusKeysAsWell) {
    const std::string status = "\"is_enabled\":0,\"is_installed\":0,\"result\":-1,\"result_out\":\"\"}\n";
    for (const char* request : {"{}", R"({"cmd":1})", R"({"cmd":null})", "[]", "1"}) {
        EXPECT_EQ(ask(hos_cmv_cli_handler, request),
                  "{\"cli_ret\":-1,\"error_code\":-1,\"error_msg\":\"paser fail\"," + status)
            << request;
    }
    EXPECT_THAT(logged(), IsEmpty());
    EXPECT_EQ(ask(hos_cmv_cli_handler, "not json"),
              "{\"cli_ret\":-1,\"error_code\":-1,\"error_msg\":\"input error\"," + status);
    EXPECT_THAT(logged(), ElementsAre("[hos_cmv_cli_handler][N] ks_io input fail. [not json]"));
    EXPECT_THAT(viewer.calls(), IsEmpty());
}

// Which descriptor a pipe would get is known only once the handler has read the registry: the reader of the last entry
// lowers the limit of the process that asks.
TEST_F(MediaViewerTest, AToolThatCannotBeStartedIsAFailureWithItsOwnCode) {
    programs.replace_by_script("/sbin/cfgread", "[ \"$2\" = Enable ] && { echo TRUE; exit; }\n"
                                                "/usr/bin/prlimit --pid \"$PPID\" --nofile=4:\n"
                                                "echo /share/CayinMediaViewer");
    struct rlimit before = {};
    (void)getrlimit(RLIMIT_NOFILE, &before);
    const auto reply = ask(hos_cmv_cli_handler, R"({"cmd":"c"})");
    (void)setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(reply, "{\"cli_ret\":-1,\"error_code\":-4,\"error_msg\":\"popen failed, "
                     "path=[/share/CayinMediaViewer/bin/cfgread], errno=[24].\",\"is_enabled\":1,\"is_installed\":1,"
                     "\"result\":-1,\"result_out\":\"\"}\n");
    EXPECT_THAT(viewer.calls(), IsEmpty());
}

} // namespace
