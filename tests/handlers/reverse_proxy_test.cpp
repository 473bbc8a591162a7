#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "privileges.h"
#include "shortage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kExtra = "/etc/reverseproxy_vexsurveillance/extra/";
constexpr const char* kPid = "/var/lock/apache_reverse_proxy_vexsurveillance.pid";
constexpr const char* kChain = "/etc/stunnel/uca.pem";
constexpr const char* kDone = "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n";

const strings kStart = {"svc_keeper", "reverseproxy_vexsurveillance", "start",
                        "\"/usr/sbin/reverseproxy_vexsurveillance -k start -f "
                        "/etc/reverseproxy_vexsurveillance/reverseproxy-vexsurveillance.conf\""};
const strings kReload = {"reverseproxy_vexsurveillance", "-k", "graceful", "-f",
                         "/etc/reverseproxy_vexsurveillance/reverseproxy-vexsurveillance.conf"};

strings files_in(const std::string& folder) {
    strings names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

std::string one_rule_request(const std::string& action, const std::string& guid) {
    return R"({"action":")" + action + R"(","rule_list":[{"GUID":")" + guid + R"(","port":1,"des_port":2}]})";
}

class ReverseProxyTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        fs::remove_all(kExtra);
        fs::create_directories(kExtra);
        fs::remove(kPid);
        fs::remove(kChain);
        keeper.answers("");
        proxy.answers("");
    }
    // The file that an "add" of one rule with these further members leaves.
    std::string rule_file(const std::string& members) {
        EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"action":"add","rule_list":[{"GUID":"g1",)" + members + "}]}"),
                  kDone);
        return read_file(kExtra + "g1.conf");
    }
    host_tool keeper{"/sbin/svc_keeper"};
    host_tool proxy{"/usr/sbin/reverseproxy_vexsurveillance"};
};

TEST_F(ReverseProxyTest, APlainRuleIsOneVirtualHost) {
    EXPECT_EQ(rule_file(R"("port":8080,"des_port":80,"host_name":"127.0.0.1")"),
              "Listen 8080\n"
              "<VirtualHost *:8080>\n"
              "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n"
              "\tProxyPreserveHost on\n"
              "\tProxyPass / http://127.0.0.1:80/ connectiontimeout=60 timeout=60\n"
              "\tProxyPassReverse / http://127.0.0.1:80/\n"
              "</VirtualHost>\n");
}

TEST_F(ReverseProxyTest, ATlsRuleHasTheHostsSettingsAndABareProtocolList) {
    EXPECT_EQ(rule_file(R"("port":8443,"des_port":443,"protocol":"https","des_protocol":"https","host_name":"cam")"),
              "Listen 8443\n"
              "<VirtualHost *:8443>\n"
              "\tSSLEngine on\n"
              "\tSSLCipherSuite EECDH+CHACHA20:EECDH+AES\n"
              "\tAll -SSLv2 -SSLv3 -TLSv1 -TLSv1.1\n"
              "\tSSLCertificateFile \"/etc/stunnel/stunnel.pem\"\n"
              "\tHeader set Strict-Transport-Security \"max-age=63072000\"\n"
              "\tSSLProxyEngine on\n"
              "\tSSLProxyVerify none\n"
              "\tSSLProxyCheckPeerCN off\n"
              "\tSSLProxyCheckPeerName off\n"
              "\tSSLProxyCheckPeerExpire off\n"
              "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n"
              "\tProxyPreserveHost on\n"
              "\tProxyPass / https://cam:443/ connectiontimeout=60 timeout=60\n"
              "\tProxyPassReverse / https://cam:443/\n"
              "</VirtualHost>\n");
}

TEST_F(ReverseProxyTest, TheChainCertificateStandsInTlsRulesWhenTheHostHasOne) {
    write_file(kChain, "");
    EXPECT_THAT(rule_file(R"("port":1,"des_port":2,"protocol":"https","hsts":true)"),
                HasSubstr("\tSSLCertificateFile \"/etc/stunnel/stunnel.pem\"\n"
                          "\tSSLCertificateChainFile \"/etc/stunnel/uca.pem\"\n"
                          "\tHeader set X-Frame-Options"));
    EXPECT_THAT(rule_file(R"("port":1,"des_port":2)"), Not(HasSubstr("SSL")));
}

TEST_F(ReverseProxyTest, HstsLeavesTheHeaderOutAndOnlyTlsRulesHaveIt) {
    const std::string header = "\tHeader set Strict-Transport-Security \"max-age=63072000\"\n";
    const std::string tls = R"("port":1,"des_port":2,"protocol":"https")";
    EXPECT_THAT(rule_file(tls), HasSubstr(header));
    EXPECT_THAT(rule_file(tls + R"(,"hsts":false)"), HasSubstr(header));
    EXPECT_THAT(rule_file(tls + R"(,"hsts":true)"), Not(HasSubstr("Strict-Transport-Security")));
    EXPECT_THAT(rule_file(R"("port":1,"des_port":2,"hsts":false)"), Not(HasSubstr("Strict-Transport-Security")));
}

TEST_F(ReverseProxyTest, HstsIsTakenForTheBooleanThatItConvertsTo) {
    const std::string tls = R"("port":1,"des_port":2,"protocol":"https","hsts":)";
    for (const char* on : {"1", "-1", "0.5"}) {
        EXPECT_THAT(rule_file(tls + on), Not(HasSubstr("Strict-Transport-Security"))) << on;
    }
    for (const char* off : {"0", "0.0", "null"}) {
        EXPECT_THAT(rule_file(tls + off), HasSubstr("Strict-Transport-Security")) << off;
    }
}

TEST_F(ReverseProxyTest, TextsAreTakenFromNumbersAndBooleansAsWell) {
    EXPECT_EQ(ask(hos_reverse_proxy_handler,
                  R"({"action":"add","rule_list":[{"GUID":5,"port":1,"des_port":2,"host_name":7},)"
                  R"({"GUID":true,"port":1,"des_port":2,"protocol":null}]})"),
              kDone);
    EXPECT_THAT(files_in(kExtra), testing::UnorderedElementsAre("5.conf", "true.conf"));
    EXPECT_THAT(read_file(kExtra + "5.conf"), HasSubstr("\tProxyPassReverse / http://7:2/\n"));
    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"rule_list":[{"GUID":5},{"GUID":true}]})"), kDone);
    EXPECT_THAT(files_in(kExtra), IsEmpty());
}

TEST_F(ReverseProxyTest, ARuleIsForTheProxyToReadAndForRootToWrite) {
    const mode_t before = umask(0);
    (void)rule_file(R"("port":1,"des_port":2)");
    (void)umask(before);
    struct stat status = {};
    ASSERT_EQ(lstat((kExtra + "g1.conf").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

TEST_F(ReverseProxyTest, ProtocolsAreComparedExactly) {
    EXPECT_THAT(rule_file(R"("port":1,"des_port":2,"protocol":"HTTPS")"), Not(HasSubstr("SSL")));
    EXPECT_THAT(rule_file(R"("port":1,"des_port":2,"des_protocol":"WSS")"), Not(HasSubstr("SSL")));
}

TEST_F(ReverseProxyTest, ASecureWebSocketBackEndIsTlsAndKeepsItsScheme) {
    EXPECT_EQ(rule_file(R"("port":-1,"des_port":70000,"des_protocol":"wss","host_name":"cam")"),
              "Listen -1\n"
              "<VirtualHost *:-1>\n"
              "\tSSLProxyEngine on\n"
              "\tSSLProxyVerify none\n"
              "\tSSLProxyCheckPeerCN off\n"
              "\tSSLProxyCheckPeerName off\n"
              "\tSSLProxyCheckPeerExpire off\n"
              "\tHeader set X-Frame-Options \"ALLOW-FROM *\"\n"
              "\tProxyPreserveHost on\n"
              "\tProxyPass / wss://cam:70000/ connectiontimeout=60 timeout=60\n"
              "\tProxyPassReverse / wss://cam:70000/\n"
              "</VirtualHost>\n");
}

TEST_F(ReverseProxyTest, TheTimeoutsStay60) {
    EXPECT_THAT(rule_file(R"("port":1,"des_port":2,"proxy_timeout":120)"),
                HasSubstr("connectiontimeout=60 timeout=60\n"));
}

TEST_F(ReverseProxyTest, AddStartsTheProxyThatDoesNotRun) {
    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"action":"add"})"), kDone);
    ASSERT_EQ(keeper.calls().size(), 1U);
    EXPECT_THAT(keeper.calls()[0].argv, ElementsAreArray(kStart));
    EXPECT_THAT(keeper.calls()[0].env, IsEmpty());
    EXPECT_THAT(proxy.calls(), IsEmpty());
    EXPECT_THAT(files_in(kExtra), IsEmpty());
    EXPECT_THAT(logged(), ElementsAre("[hos_reverse_proxy_handler][N] proxy_cmd = " + kStart[3],
                                      "[hos_reverse_proxy_handler][N] argv[0] = [svc_keeper] ",
                                      "[hos_reverse_proxy_handler][N] argv[1] = [reverseproxy_vexsurveillance] ",
                                      "[hos_reverse_proxy_handler][N] argv[2] = [start] ",
                                      "[hos_reverse_proxy_handler][N] argv[3] = [" + kStart[3] + "] ",
                                      "[hos_reverse_proxy_handler][N] argv[4] = [(null)] ",
                                      "[hos_reverse_proxy_handler][N] exec /sbin/svc_keeper succ, ret_out=[]"));
}

TEST_F(ReverseProxyTest, AddReloadsTheProxyThatRuns) {
    write_file(kPid, "1\n");
    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"action":"add","rule_list":[]})"), kDone);
    ASSERT_EQ(proxy.calls().size(), 1U);
    EXPECT_THAT(proxy.calls()[0].argv, ElementsAreArray(kReload));
    EXPECT_THAT(keeper.calls(), IsEmpty());
}

TEST_F(ReverseProxyTest, DeleteRemovesTheNamedRulesAndReloadsWhetherOrNotTheProxyRuns) {
    for (const char* name : {"g1.conf", "g2.conf", "g3.conf"}) {
        write_file(kExtra + name, "");
    }
    EXPECT_EQ(ask(hos_reverse_proxy_handler,
                  R"({"action":"delete","rule_list":[{"GUID":"g1","port":"unread"},{"GUID":"none"},{"GUID":"g3"}]})"),
              kDone);
    EXPECT_THAT(files_in(kExtra), ElementsAre("g2.conf"));
    ASSERT_EQ(proxy.calls().size(), 1U);
    EXPECT_THAT(proxy.calls()[0].argv, ElementsAreArray(kReload));
    EXPECT_THAT(keeper.calls(), IsEmpty());
}

TEST_F(ReverseProxyTest, DeleteIsTheDefaultAction) {
    write_file(kExtra + "g1.conf", "");
    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"rule_list":[{"GUID":"g1"}]})"), kDone);
    EXPECT_THAT(files_in(kExtra), IsEmpty());
    EXPECT_EQ(ask(hos_reverse_proxy_handler, "{}"), kDone);
    EXPECT_EQ(proxy.calls().size(), 2U);
}

TEST_F(ReverseProxyTest, RulesWithoutIdentityAreSkipped) {
    const std::string rules = R"("rule_list":[{"port":1,"des_port":2},{"GUID":"","port":3,"des_port":4},null,)"
                              R"({"GUID":"g1","port":5,"des_port":6}]})";
    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"action":"add",)" + rules), kDone);
    EXPECT_THAT(files_in(kExtra), ElementsAre("g1.conf"));
    ASSERT_GT(logged().size(), 2U);
    for (const int i : {0, 1, 2}) {
        EXPECT_EQ(logged()[static_cast<std::size_t>(i)],
                  "[hos_reverse_proxy_handler][N] get jRuleList[" + std::to_string(i) + "] strGUID failed");
    }
    forget_log();
    EXPECT_EQ(ask(hos_reverse_proxy_handler, "{" + rules), kDone);
    EXPECT_THAT(files_in(kExtra), IsEmpty());
    ASSERT_GT(logged().size(), 2U);
    EXPECT_EQ(logged()[2], "[hos_reverse_proxy_handler][N] get jRuleList[2] strGUID failed");
}

TEST_F(ReverseProxyTest, AnIdentityThatNamesNoFileOfTheFolderTouchesNothing) {
    write_file("/etc/reverseproxy_vexsurveillance/victim.conf", "untouched");
    fs::create_directories(kExtra + "sub");
    write_file(kExtra + "sub/victim.conf", "untouched");
    for (const std::string guid : {"../victim", "sub/victim", "/etc/victim", "./victim", "x\\u0000y"}) {
        for (const std::string action : {"add", "delete"}) {
            EXPECT_EQ(ask(hos_reverse_proxy_handler, one_rule_request(action, guid)), kDone) << action << guid;
            EXPECT_THAT(files_in(kExtra), ElementsAre("sub")) << action << guid;
        }
    }
    EXPECT_EQ(read_file("/etc/reverseproxy_vexsurveillance/victim.conf"), "untouched");
    EXPECT_EQ(read_file(kExtra + "sub/victim.conf"), "untouched");
    EXPECT_FALSE(file_exists("/etc/victim.conf"));
}

TEST_F(ReverseProxyTest, DotsAreAnOrdinaryIdentity) {
    for (const std::string guid : {".", ".."}) {
        EXPECT_EQ(ask(hos_reverse_proxy_handler,
                      R"({"action":"add","rule_list":[{"GUID":")" + guid + R"(","port":1,"des_port":2}]})"),
                  kDone);
        EXPECT_THAT(files_in(kExtra), ElementsAre(guid + ".conf"));
        EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"rule_list":[{"GUID":")" + guid + R"("}]})"), kDone);
        EXPECT_THAT(files_in(kExtra), IsEmpty());
    }
}

TEST_F(ReverseProxyTest, ARuleReplacesWhatStoodInItsPlace) {
    write_file(kExtra + "victim", "untouched");
    fs::create_symlink(kExtra + "victim", kExtra + "g1.conf");
    EXPECT_THAT(rule_file(R"("port":1,"des_port":2)"), testing::StartsWith("Listen 1\n"));
    EXPECT_FALSE(fs::is_symlink(kExtra + "g1.conf"));
    EXPECT_EQ(read_file(kExtra + "victim"), "untouched");
    EXPECT_THAT(rule_file(R"("port":3,"des_port":4)"), testing::StartsWith("Listen 3\n"));
}

TEST_F(ReverseProxyTest, ARuleThatCannotBeWrittenIsPassedOver) {
    fs::create_directories(kExtra + "g1.conf");
    EXPECT_EQ(ask(hos_reverse_proxy_handler,
                  R"({"action":"add","rule_list":[{"GUID":"g1","port":1,"des_port":2},{"GUID":")" +
                      std::string(300, 'g') + R"(","port":1,"des_port":2},{"GUID":"g2","port":1,"des_port":2}]})"),
              kDone);
    EXPECT_TRUE(fs::is_directory(kExtra + "g1.conf"));
    EXPECT_TRUE(file_exists(kExtra + "g2.conf"));
}

TEST_F(ReverseProxyTest, APortThatIsNoNumberEndsTheRequestAfterTheEarlierRules) {
    for (const char* ports : {R"("des_port":2)", R"("port":1)", R"("port":null,"des_port":2)",
                              R"("port":"1","des_port":2)", R"("port":1,"des_port":"2")", R"("port":true,"des_port":2)",
                              R"("port":[1],"des_port":2)", R"("port":4294967296,"des_port":2)"}) {
        SetUp();
        EXPECT_EQ(ask(hos_reverse_proxy_handler,
                      R"({"action":"add","rule_list":[{"GUID":"g1","port":1,"des_port":2},{"GUID":"g2",)" +
                          std::string(ports) + R"(},{"GUID":"g3","port":1,"des_port":2}]})"),
                  std::nullopt)
            << ports;
        EXPECT_THAT(escaped_error, Not(IsEmpty())) << ports;
        EXPECT_THAT(files_in(kExtra), ElementsAre("g1.conf")) << ports;
        EXPECT_THAT(keeper.calls(), IsEmpty());
    }
}

TEST_F(ReverseProxyTest, AFractionOfAPortIsDropped) {
    EXPECT_THAT(rule_file(R"("port":8080.9,"des_port":80.1)"), testing::StartsWith("Listen 8080\n"));
}

TEST_F(ReverseProxyTest, MembersThatCannotBeConvertedEndTheRequest) {
    for (const char* request :
         {R"({"action":["add"]})", R"({"action":"add","rule_list":{"GUID":"g1"}})",
          R"({"action":"add","rule_list":["g1"]})", R"({"action":"add","rule_list":[{"GUID":["g1"]}]})",
          R"({"action":"add","rule_list":[{"GUID":"g1","port":1,"des_port":2,"protocol":{}}]})",
          R"({"action":"add","rule_list":[{"GUID":"g1","port":1,"des_port":2,"des_protocol":[]}]})",
          R"({"action":"add","rule_list":[{"GUID":"g1","port":1,"des_port":2,"hsts":"true"}]})",
          R"({"action":"add","rule_list":[{"GUID":"g1","port":1,"des_port":2,"host_name":[]}]})",
          R"({"action":"add","rule_list":[{"GUID":"g1","port":1,"des_port":2,"proxy_timeout":"60"}]})"}) {
        EXPECT_EQ(ask(hos_reverse_proxy_handler, request), std::nullopt) << request;
        EXPECT_THAT(escaped_error, Not(IsEmpty())) << request;
    }
    EXPECT_THAT(files_in(kExtra), IsEmpty());
    EXPECT_THAT(keeper.calls(), IsEmpty());
}

TEST_F(ReverseProxyTest, AnUnknownActionDoesNothingAndHasNoReply) {
    write_file(kExtra + "g1.conf", "");
    for (const char* action : {"\"ADD\"", "\"\"", "\"remove\"", "null", "1"}) {
        forget_log();
        EXPECT_EQ(
            ask(hos_reverse_proxy_handler, R"({"action":)" + std::string(action) + R"(,"rule_list":[{"GUID":"g1"}]})"),
            std::nullopt)
            << action;
        EXPECT_EQ(escaped_error, "");
        ASSERT_EQ(logged().size(), 1U);
        EXPECT_THAT(logged()[0], testing::StartsWith("[hos_reverse_proxy_handler][N] unknown action = "));
    }
    EXPECT_EQ(logged()[0], "[hos_reverse_proxy_handler][N] unknown action = 1");
    EXPECT_THAT(files_in(kExtra), ElementsAre("g1.conf"));
    EXPECT_THAT(keeper.calls(), IsEmpty());
    EXPECT_THAT(proxy.calls(), IsEmpty());
}

TEST_F(ReverseProxyTest, TextThatIsNoObjectIsAnInputErrorAndTracedWithItsReason) {
    for (const char* request : {"[]", "null", "1", "\"add\""}) {
        forget_log();
        EXPECT_EQ(ask(hos_reverse_proxy_handler, request), kInputError) << request;
        EXPECT_THAT(logged(), ElementsAre("[hos_reverse_proxy_handler][N] parse strInputArg failed, "
                                          "error=[not an object]"));
    }
    const std::string start = "[hos_reverse_proxy_handler][N] parse strInputArg failed, error=[";
    forget_log();
    EXPECT_EQ(ask(hos_reverse_proxy_handler), kInputError);
    EXPECT_THAT(logged(),
                ElementsAre(start + "* Line 1, Column 1", "  Syntax error: value, object or array expected.", "]"));
    forget_log();
    EXPECT_EQ(ask(hos_reverse_proxy_handler, "{"), kInputError);
    EXPECT_THAT(logged(), ElementsAre(start + "* Line 1, Column 2", "  Missing '}' or object member name", "]"));
    EXPECT_THAT(proxy.calls(), IsEmpty());
}

TEST_F(ReverseProxyTest, WhatTheProgramPrintedIsReturnedEncodedAndItsFileRemoved) {
    proxy.answers("foo");
    proxy.complains("errors are discarded");
    EXPECT_EQ(ask(hos_reverse_proxy_handler, "{}"), "{\"cli_ret\":0,\"result\":0,\"result_out\":\"Zm9v\"}\n");
    EXPECT_THAT(kept_files(), IsEmpty());
    EXPECT_THAT(logged(), Contains("[hos_reverse_proxy_handler][N] exec /usr/sbin/reverseproxy_vexsurveillance succ, "
                                   "ret_out=[foo]"));
}

TEST_F(ReverseProxyTest, AFailedProgramHasNoReplyAndItsOutputStays) {
    proxy.answers("why").exits(3);
    EXPECT_EQ(ask(hos_reverse_proxy_handler, "{}"), std::nullopt);
    EXPECT_EQ(escaped_error, "");
    EXPECT_THAT(logged(), Contains("[hos_reverse_proxy_handler][N] exec /usr/sbin/reverseproxy_vexsurveillance failed, "
                                   "ret=[768]"));
    ASSERT_EQ(kept_files().size(), 1U);
    EXPECT_EQ(read_file(kept_files()[0]), "why");
}

// What the log says at last of a start that failed.
std::string failed_start(const std::string& status) {
    return "[hos_reverse_proxy_handler][N] exec /sbin/svc_keeper failed, ret=[" + status + "]";
}

TEST_F(ReverseProxyTest, AFailedStartHasNoReplyAndItsOutputStays) {
    keeper.answers("why").complains("discarded").exits(1);
    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"action":"add"})"), std::nullopt);
    EXPECT_EQ(last_logged(), failed_start("256"));
    keeper.clear();
    keeper.answers("why").dies_by(SIGKILL);
    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"action":"add"})"), std::nullopt);
    EXPECT_EQ(last_logged(), failed_start("9"));
    ASSERT_EQ(kept_files().size(), 2U);
    EXPECT_EQ(read_file(kept_files()[0]), "why");
    EXPECT_EQ(read_file(kept_files()[1]), "why");
}

TEST_F(ReverseProxyTest, AStartWithoutTheServiceKeeperHasNoReply) {
    programs.take_away(keeper.path());
    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"action":"add","rule_list":[{"GUID":"g1","port":1,"des_port":2}]})"),
              std::nullopt);
    EXPECT_EQ(last_logged(), failed_start("32512"));
    EXPECT_THAT(files_in(kExtra), ElementsAre("g1.conf"));
    EXPECT_EQ(kept_files().size(), 1U);
}

int proxy_without_temporary_files(ks_io* io, int fd) {
    run_without_temporary_files([&] { (void)hos_reverse_proxy_handler(io, fd); });
    return 0;
}

TEST_F(ReverseProxyTest, WithoutATemporaryFileNothingRunsAndThereIsNoReply) {
    SKIP_UNLESS(may_mount(), "mounts an empty /tmp, which takes CAP_SYS_ADMIN");
    EXPECT_EQ(ask(proxy_without_temporary_files, R"({"action":"add"})"), std::nullopt);
    EXPECT_EQ(last_logged(), failed_start("-1"));
    EXPECT_THAT(keeper.calls(), IsEmpty());
}

TEST_F(ReverseProxyTest, AFileThatIsGoneAlreadyShowsInTheReply) {
    programs.replace_by_script(proxy.path(), "/bin/rm -f \"$(/bin/readlink /proc/$$/fd/1)\"");
    EXPECT_EQ(ask(hos_reverse_proxy_handler, "{}"), "{\"cli_ret\":-1,\"result\":0,\"result_out\":\"\"}\n");
}

} // namespace
