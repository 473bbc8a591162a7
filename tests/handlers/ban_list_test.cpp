#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kBanListFile = "/etc/default_config/apache/extra/vexcms_ip_ban_list.conf";
constexpr const char* kFailed = "{\"error_msg\":\"hos_update_ip_ban_list_handler fail\",\"result\":-1}\n";

class BanListTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        write_file(kBanListFile, "as it was");
        web_server.exits(0);
    }
    host_tool web_server{"/usr/local/apache/bin/apache_proxy"};
    host_tool tunnel{"/etc/init.d/stunnel.sh"};
};

TEST_F(BanListTest, WritesTheListAndReloadsBothServers) {
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":"192.0.2.1,2001:db8::7"})"), "{\"result\":0}\n");
    EXPECT_EQ(read_file(kBanListFile), "<LocationMatch \"/.*\">\n"
                                       "order allow,deny\n"
                                       "deny from 192.0.2.1\n"
                                       "deny from 2001:db8::7\n"
                                       "allow from all\n"
                                       "</LocationMatch>\n");
    ASSERT_EQ(web_server.calls().size(), 1U);
    EXPECT_THAT(web_server.calls()[0].argv,
                ElementsAre("apache_proxy", "-k", "graceful", "-f", "/etc/apache-sys-proxy.conf"));
    EXPECT_THAT(web_server.calls()[0].env, IsEmpty());
    ASSERT_EQ(tunnel.calls().size(), 1U);
    EXPECT_THAT(tunnel.calls()[0].argv, ElementsAre("stunnel.sh", "reload"));
    EXPECT_THAT(tunnel.calls()[0].env, IsEmpty());
}

TEST_F(BanListTest, AnEmptyListLeavesTheFourFixedLines) {
    for (const char* request : {R"({"ip_list":""})", R"({"ip_list":","})", R"({"ip_list":",,,"})"}) {
        write_file(kBanListFile, "a longer text than the one that is to come, by some hundred characters or so; "
                                 "nothing of it may be left behind the new one, or the web server refuses the file");
        EXPECT_EQ(ask(hos_update_ip_ban_list_handler, request), "{\"result\":0}\n");
        EXPECT_EQ(read_file(kBanListFile),
                  "<LocationMatch \"/.*\">\norder allow,deny\nallow from all\n</LocationMatch>\n");
    }
    EXPECT_EQ(web_server.calls().size(), 3U);
}

TEST_F(BanListTest, EmptyPiecesAreDroppedAndAddressesStandAsTheyCome) {
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":"192.0.2.1,, 192.0.2.2,no address "})"),
              "{\"result\":0}\n");
    EXPECT_EQ(read_file(kBanListFile), "<LocationMatch \"/.*\">\n"
                                       "order allow,deny\n"
                                       "deny from 192.0.2.1\n"
                                       "deny from  192.0.2.2\n"
                                       "deny from no address \n"
                                       "allow from all\n"
                                       "</LocationMatch>\n");
}

TEST_F(BanListTest, ServersThatDoNotReloadAreNotTheCallersFailure) {
    web_server.exits(1);
    tunnel.exits(1);
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":"192.0.2.1"})"), "{\"result\":0}\n");
    EXPECT_EQ(tunnel.calls().size(), 1U);
}

TEST_F(BanListTest, TheListIsWrittenBeforeTheWebServerAndThenTheTunnelAreReloaded) {
    fs::remove("/tmp/reloads");
    for (const std::string& path : {web_server.path(), tunnel.path()}) {
        programs.replace_by_script(path,
                                   "echo $0 $(/usr/bin/wc -c < " + std::string(kBanListFile) + ") >> /tmp/reloads");
    }
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":"192.0.2.1"})"), "{\"result\":0}\n");
    ASSERT_EQ(fs::file_size(kBanListFile), 91U);
    EXPECT_EQ(read_file("/tmp/reloads"), "/usr/local/apache/bin/apache_proxy 91\n"
                                         "/etc/init.d/stunnel.sh 91\n");
}

TEST_F(BanListTest, AListThatWasNotThereIsMadeForAllToRead) {
    fs::remove(kBanListFile);
    const mode_t before = umask(0);
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":""})"), "{\"result\":0}\n");
    (void)umask(before);
    EXPECT_EQ(read_file(kBanListFile), "<LocationMatch \"/.*\">\norder allow,deny\nallow from all\n</LocationMatch>\n");
    struct stat status = {};
    ASSERT_EQ(lstat(kBanListFile, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

TEST_F(BanListTest, AFileThatCannotBeWrittenFailsAndReloadsNothing) {
    fs::remove_all("/etc/default_config/apache/extra");
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":"192.0.2.1"})"), kFailed);
    fs::create_directories("/etc/default_config/apache/extra");
    EXPECT_THAT(web_server.calls(), IsEmpty());
    EXPECT_THAT(tunnel.calls(), IsEmpty());
}

TEST_F(BanListTest, AFullDiskFailsAndReloadsNothing) {
    fs::remove(kBanListFile);
    fs::create_symlink("/dev/full", kBanListFile);
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":"192.0.2.1"})"), kFailed);
    fs::remove(kBanListFile);
    EXPECT_THAT(web_server.calls(), IsEmpty());
    EXPECT_THAT(tunnel.calls(), IsEmpty());
}

TEST_F(BanListTest, ARequestWithoutAListLeavesTheFileAlone) {
    for (const char* request : {"{}", R"({"ip_list":null})", R"({"ip_list":["192.0.2.1"]})", R"({"ip_list":1})"}) {
        EXPECT_EQ(ask(hos_update_ip_ban_list_handler, request), kPaserFail) << request;
    }
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, "ip_list"), kInputError);
    EXPECT_THAT(logged(), ElementsAre("[hos_update_ip_ban_list_handler][N] ks_io input fail."));
    EXPECT_EQ(read_file(kBanListFile), "as it was");
    EXPECT_THAT(web_server.calls(), IsEmpty());
}

} // namespace
