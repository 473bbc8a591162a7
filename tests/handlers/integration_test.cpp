#include "ask.h"
#include "base64.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "privileges.h"
#include "shortage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <sys/xattr.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kInstalled = "[VexHubServer]\n"
                                   "Install_Path = /share/VexHubServer\n"
                                   "Shell = /share/VexHubServer/VexHubServer.sh\n";

class IntegrationTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        registry(kInstalled);
    }
};

// The commands that run one program with the caller's values and look at its exit status.
struct run_case {
    handler_function handler;
    const char* program;
    const char* request;
    strings argv;
    const char* failure;
    strings incomplete;
};

TEST_F(IntegrationTest, PlainCommandsRunTheirProgramWithTheCallersValues) {
    const run_case cases[] = {
        {hos_system_call_no_del_share_add_handler,
         "/sbin/no_del_share",
         R"({"share_name":"my share"})",
         {"no_del_share", "add", "my share", "VexHubServer"},
         "hos_system_call_no_del_share_add_handler",
         {"{}", R"({"share_name":1})", R"({"share_name":null})", "[]"}},
        {hos_system_call_no_del_share_remove_handler,
         "/sbin/no_del_share",
         R"({"share_name":"$HOME"})",
         {"no_del_share", "remove", "$HOME"}, // no owner
         "hos_system_call_no_del_share_remove_handler",
         {"{}", R"({"share_name":["a"]})"}},
        {hos_system_call_findly_list_add_handler,
         "/share/VexHubServer/VexHubServer.sh",
         R"({"exclude_name":"","exclude_path":"/share/rec ordings"})",
         {"VexHubServer.sh", "evbus_findly_list_add", "", "/share/rec ordings"},
         "hos_system_call_findly_list_add_handler",
         {R"({"exclude_name":"n"})", R"({"exclude_path":"p"})", R"({"exclude_name":"n","exclude_path":1})"}},
        {hos_system_vxb_smb_setfolder_priv_handler,
         "/etc/init.d/vex_smb_update.sh",
         R"({"share_name":"s","command":"set","priv_type":"rw"})",
         {"vex_smb_update.sh", "set", "s", "rw"},
         "hos_system_vxb_smb_setfolder_priv_handler",
         {R"({"command":"c","priv_type":"p"})", R"({"share_name":"s","priv_type":"p"})",
          R"({"share_name":"s","command":"c"})", R"({"share_name":"s","command":true,"priv_type":"p"})"}},
        {hos_return_handler,
         "/share/VexHubServer/vexpro_notify.sh",
         R"({"cmd":3,"type":-2147483648,"acy":2147483647})",
         {"vexpro_notify.sh", "NOTIFY_CMD", "-2147483648", "2147483647"},
         "hos_return_handler",
         {R"({"type":1,"acy":1})", R"({"cmd":3,"acy":1})", R"({"cmd":3,"type":1})", R"({"cmd":"3","type":1,"acy":1})",
          R"({"cmd":3,"type":1.5,"acy":1})", R"({"cmd":3,"type":1,"acy":2147483648})",
          R"({"cmd":true,"type":1,"acy":1})"}},
    };
    for (const run_case& each : cases) {
        SCOPED_TRACE(each.failure);
        host_tool program(each.program);
        EXPECT_EQ(ask(each.handler, each.request), "{\"result\":0}\n");
        ASSERT_EQ(program.calls().size(), 1U);
        EXPECT_THAT(program.calls()[0].argv, ElementsAreArray(each.argv));
        EXPECT_THAT(program.calls()[0].env, IsEmpty());
        program.exits(1);
        EXPECT_EQ(ask(each.handler, each.request), failure(each.failure));
        program.clear();
        for (const std::string& request : each.incomplete) {
            EXPECT_EQ(ask(each.handler, request), kPaserFail) << request;
        }
        forget_log();
        EXPECT_EQ(ask(each.handler, ""), kInputError);
        EXPECT_THAT(logged(), ElementsAre("[" + std::string(each.failure) + "][N] ks_io input fail."));
        EXPECT_THAT(program.calls(), IsEmpty());
    }
}

TEST_F(IntegrationTest, AShareIsGuardedUntilItIsRemovedFromTheHostsList) {
    fs::remove("/etc/config/no_del_share");
    EXPECT_EQ(ask(hos_system_call_no_del_share_add_handler, R"({"share_name":"Recordings"})"), "{\"result\":0}\n");
    EXPECT_EQ(read_file("/etc/config/no_del_share"), "Recordings VexHubServer\n");
    EXPECT_EQ(ask(hos_system_call_no_del_share_remove_handler, R"({"share_name":"Recordings"})"), "{\"result\":0}\n");
    EXPECT_EQ(read_file("/etc/config/no_del_share"), "");
}

TEST_F(IntegrationTest, FindlyFailsWithoutAControlScript) {
    registry("[VexHubServer]\nInstall_Path = /share/VexHubServer\n");
    EXPECT_EQ(ask(hos_system_call_findly_list_add_handler, R"({"exclude_name":"n","exclude_path":"p"})"),
              failure("hos_system_call_findly_list_add_handler"));
}

class ExtendedProductDataTest : public IntegrationTest {
protected:
    host_tool hwctl{"/sbin/hwctl"};
};

TEST_F(ExtendedProductDataTest, IsTheToolsOutputTrimmedAtBothEnds) {
    hwctl.answers("\n  SN 0042 \n x \n\n");
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, R"({"offest":8,"length":-1})"),
              "{\"result\":0,\"vpd_ext_area\":\"SN 0042 \\n x\"}\n");
    ASSERT_EQ(hwctl.calls().size(), 1U);
    EXPECT_THAT(hwctl.calls()[0].argv, ElementsAre("hwctl", "--vpd_get_ext_area", "offset=8,length=-1"));
    EXPECT_THAT(logged(), Contains("[hos_get_vpd_ext_area_handler][N] /sbin/hwctl --vpd_get_ext_area  "
                                   "offset=8,length=-1"));
    EXPECT_THAT(logged(), Contains("[hos_get_vpd_ext_area_handler][N] str_output="));
}

TEST_F(ExtendedProductDataTest, TheToolHasTheDaemonsOwnEnvironment) {
    setenv("VPD_TEST", "inherited", 1);
    (void)ask(hos_get_vpd_ext_area_handler, R"({"offest":0,"length":4})");
    unsetenv("VPD_TEST");
    ASSERT_EQ(hwctl.calls().size(), 1U);
    EXPECT_THAT(hwctl.calls()[0].env, Contains("VPD_TEST=inherited"));
}

TEST_F(ExtendedProductDataTest, ComesFromTheHostsOwnArea) {
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, R"({"offest":2,"length":4})"),
              "{\"result\":0,\"vpd_ext_area\":\"0123\"}\n");
}

TEST_F(ExtendedProductDataTest, TheToolsExitStatusIsNotLookedAt) {
    hwctl.answers("area").exits(1);
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, R"({"offest":0,"length":4})"),
              "{\"result\":0,\"vpd_ext_area\":\"area\"}\n");
    hwctl.answers("");
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, R"({"offest":0,"length":4})"),
              "{\"result\":0,\"vpd_ext_area\":\"\"}\n");
}

TEST_F(ExtendedProductDataTest, AnAreaLongerThanAnyBufferArrivesWhole) {
    const std::string area(5000, 'x');
    hwctl.answers(area + "\n");
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, R"({"offest":0,"length":5000})"),
              "{\"result\":0,\"vpd_ext_area\":\"" + area + "\"}\n");
}

TEST_F(ExtendedProductDataTest, TheSelectorIsCutAt31Characters) {
    hwctl.answers("");
    (void)ask(hos_get_vpd_ext_area_handler, R"({"offest":-2147483648,"length":12345})");
    (void)ask(hos_get_vpd_ext_area_handler, R"({"offest":-2147483648,"length":123456})");
    ASSERT_EQ(hwctl.calls().size(), 2U);
    EXPECT_EQ(hwctl.calls()[0].argv[2], "offset=-2147483648,length=12345");
    EXPECT_EQ(hwctl.calls()[1].argv[2], "offset=-2147483648,length=12345");
}

TEST_F(ExtendedProductDataTest, TheKeyIsMisspelt) {
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, R"({"offset":0,"length":4})"), kPaserFail);
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, R"({"offest":"0","length":4})"), kPaserFail);
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, R"({"offest":0})"), kPaserFail);
    EXPECT_EQ(ask(hos_get_vpd_ext_area_handler, "no"), kInputError);
    EXPECT_THAT(hwctl.calls(), IsEmpty());
}

int starved_vpd_handler(ks_io* io, int fd) {
    const descriptor_shortage shortage;
    return hos_get_vpd_ext_area_handler(io, fd);
}

int starved_usage_handler(ks_io* io, int fd) {
    const descriptor_shortage shortage;
    return hos_system_get_tiermount_cloud_usage_handler(io, fd);
}

TEST_F(ExtendedProductDataTest, AToolThatCannotBeStartedIsAFailure) {
    EXPECT_EQ(ask(starved_vpd_handler, R"({"offest":0,"length":4})"), failure("hos_get_vpd_ext_area_handler"));
    EXPECT_THAT(logged(), Contains("[hos_get_vpd_ext_area_handler][N] get vpd area failed, ret=-2"));
}

class NotifyTest : public IntegrationTest {
protected:
    host_tool wrapper{"/share/VexHubServer/script/nc_wrapper.sh"};
};

TEST_F(NotifyTest, TheShellReadsTheDecodedTextAsTheWrappersArguments) {
    EXPECT_EQ(ask(hos_system_call_nc_notify_handler,
                  R"({"nc_notify":")" + base64_text("-m 'two words' \"$((1+1))\" plain") + "\"}"),
              "{\"result\":0}\n");
    ASSERT_EQ(wrapper.calls().size(), 1U);
    EXPECT_THAT(wrapper.calls()[0].argv,
                ElementsAre("/share/VexHubServer/script/nc_wrapper.sh", "-m", "two words", "2", "plain"));
}

TEST_F(NotifyTest, AFailedWrapperIsAFailure) {
    wrapper.exits(1);
    EXPECT_EQ(ask(hos_system_call_nc_notify_handler, R"({"nc_notify":""})"),
              failure("hos_system_call_nc_notify_handler"));
    EXPECT_EQ(ask(hos_system_call_nc_notify_handler, "{}"), kPaserFail);
    EXPECT_EQ(ask(hos_system_call_nc_notify_handler, ""), kInputError);
    EXPECT_EQ(wrapper.calls().size(), 1U);
}

TEST_F(NotifyTest, WithoutAnInstallPathTheTextRunsAsACommand) {
    registry("[VexHubServer]\nShell = /share/VexHubServer/VexHubServer.sh\n");
    fs::remove("/tmp/notified");
    EXPECT_EQ(
        ask(hos_system_call_nc_notify_handler, R"({"nc_notify":")" + base64_text("echo hi > /tmp/notified") + "\"}"),
        "{\"result\":0}\n");
    EXPECT_EQ(read_file("/tmp/notified"), "hi\n");
    EXPECT_THAT(wrapper.calls(), IsEmpty());
}

TEST_F(NotifyTest, TheShellIsCalledShAndHasNoEnvironment) {
    registry("[VexHubServer]\nShell = /share/VexHubServer/VexHubServer.sh\n");
    setenv("NOTIFY_TEST", "not inherited", 1);
    const std::string command =
        "/bin/cat /proc/$$/cmdline > /tmp/shell-argv; /bin/cat /proc/$$/environ > /tmp/shell-env";
    EXPECT_EQ(ask(hos_system_call_nc_notify_handler, R"({"nc_notify":")" + base64_text(command) + "\"}"),
              "{\"result\":0}\n");
    unsetenv("NOTIFY_TEST");
    EXPECT_EQ(read_file("/tmp/shell-argv"), std::string("sh\0-c\0 ", 7) + command + '\0');
    ASSERT_TRUE(file_exists("/tmp/shell-env"));
    EXPECT_EQ(read_file("/tmp/shell-env"), "");
}

TEST_F(NotifyTest, TheCommandLineIsCutAt4095Characters) {
    const std::string path = "/share/VexHubServer/script/nc_wrapper.sh ";
    const std::string fits(4095 - path.size(), 'x');
    EXPECT_EQ(ask(hos_system_call_nc_notify_handler, R"({"nc_notify":")" + base64_text(fits) + "\"}"),
              "{\"result\":0}\n");
    EXPECT_EQ(ask(hos_system_call_nc_notify_handler, R"({"nc_notify":")" + base64_text(fits + "y") + "\"}"),
              "{\"result\":0}\n");
    ASSERT_EQ(wrapper.calls().size(), 2U);
    EXPECT_EQ(wrapper.calls()[0].argv[1], fits);
    EXPECT_EQ(wrapper.calls()[1].argv[1], fits);
}

TEST_F(NotifyTest, TheDecodedTextEndsAtItsFirstNulAndAtTheFirstCharacterThatIsNoDigit) {
    EXPECT_EQ(
        ask(hos_system_call_nc_notify_handler, R"({"nc_notify":")" + base64_text(std::string("one\0two", 7)) + "\"}"),
        "{\"result\":0}\n");
    EXPECT_EQ(ask(hos_system_call_nc_notify_handler, R"({"nc_notify":"Zm9v!Zm9v"})"), "{\"result\":0}\n");
    ASSERT_EQ(wrapper.calls().size(), 2U);
    EXPECT_EQ(wrapper.calls()[0].argv[1], "one");
    EXPECT_EQ(wrapper.calls()[1].argv[1], "foo");
}

class NotifyReturnTest : public IntegrationTest {
protected:
    host_tool script{"/share/VexHubServer/vexpro_notify.sh"};
};

TEST_F(NotifyReturnTest, OnlyCommand3IsServed) {
    for (const char* cmd : {"2", "4", "0", "-3"}) {
        EXPECT_EQ(ask(hos_return_handler, R"({"type":1,"acy":1,"cmd":)" + std::string(cmd) + "}"),
                  failure("hos_return_handler"))
            << cmd;
    }
    EXPECT_THAT(script.calls(), IsEmpty());
}

TEST_F(NotifyReturnTest, FailsWithoutAnInstallPath) {
    registry("[Other]\nInstall_Path = /share/VexHubServer\n");
    EXPECT_EQ(ask(hos_return_handler, R"({"type":1,"acy":1,"cmd":3})"), failure("hos_return_handler"));
    EXPECT_THAT(script.calls(), IsEmpty());
}

// getfattr is the machine's real one here.
class CloudUsageTest : public IntegrationTest {
protected:
    void SetUp() override {
        IntegrationTest::SetUp();
        fs::remove(kFile);
        write_file(kFile, "");
    }
    static void set_usage(const std::string& value) {
        ASSERT_EQ(setxattr(kFile, "trusted.tm.cloud_usage", value.data(), value.size(), 0), 0);
    }
    static std::optional<std::string> usage_of(const std::string& path) {
        return ask(hos_system_get_tiermount_cloud_usage_handler, R"({"full_path":")" + path + "\"}");
    }
    static constexpr const char* kFile = "/tmp/tier mount";
};

TEST_F(CloudUsageTest, IsTheAttributesBytesEncoded) {
    SKIP_UNLESS(may_set_trusted_attributes(), "sets a trusted attribute, which takes the rights of the machine's root");
    set_usage("{\"used\": 42}\n");
    EXPECT_EQ(usage_of(kFile), "{\"result\":0,\"size_info\":\"eyJ1c2VkIjogNDJ9Cg==\"}\n");
    const std::string bytes("a\0\xff", 3);
    set_usage(bytes);
    EXPECT_EQ(usage_of(kFile), "{\"result\":0,\"size_info\":\"YQD/\"}\n");
}

TEST_F(CloudUsageTest, AnAttributeLongerThanOneReadArrivesWhole) {
    SKIP_UNLESS(may_set_trusted_attributes(), "sets a trusted attribute, which takes the rights of the machine's root");
    const std::string usage(2049, 'u');
    set_usage(usage);
    EXPECT_EQ(usage_of(kFile), "{\"result\":0,\"size_info\":\"" + base64_text(usage) + "\"}\n");
}

TEST_F(CloudUsageTest, NoAttributeNoPathAndAnEmptyAttributeAreFailures) {
    SKIP_UNLESS(may_set_trusted_attributes(), "sets a trusted attribute, which takes the rights of the machine's root");
    const std::string failed = failure("hos_system_get_tiermount_cloud_usage_handler");
    EXPECT_EQ(usage_of(kFile), failed);
    EXPECT_EQ(usage_of("/tmp/no such file"), failed);
    set_usage("");
    EXPECT_EQ(usage_of(kFile), failed);
    EXPECT_EQ(ask(hos_system_get_tiermount_cloud_usage_handler, "{}"), kPaserFail);
    EXPECT_EQ(ask(hos_system_get_tiermount_cloud_usage_handler, ""), kInputError);
}

TEST_F(CloudUsageTest, AReaderThatCannotBeStartedIsAFailure) {
    SKIP_UNLESS(may_set_trusted_attributes(), "sets a trusted attribute, which takes the rights of the machine's root");
    set_usage("42");
    EXPECT_EQ(ask(starved_usage_handler, R"({"full_path":"/tmp/tier mount"})"),
              failure("hos_system_get_tiermount_cloud_usage_handler"));
}

TEST_F(CloudUsageTest, TheReadersArgumentsAreFixedAndItsExitStatusIsNotLookedAt) {
    programs.replace_by_script("/usr/bin/getfattr", "printf '%s|' \"$@\"\nexit 3");
    EXPECT_EQ(usage_of("/tmp/a b"),
              "{\"result\":0,\"size_info\":\"" +
                  base64_text("--only-values|--absolute-names|-n|trusted.tm.cloud_usage|/tmp/a b|") + "\"}\n");
}

TEST_F(CloudUsageTest, TheReaderIsCalledByItsNameAndHasTheDaemonsOwnEnvironment) {
    programs.replace_by_copy_of("/usr/bin/getfattr", CHILD_PROBE); // prints how it was called
    setenv("USAGE_TEST", "inherited", 1);
    const auto reply = usage_of("/tmp/x");
    unsetenv("USAGE_TEST");
    const std::string start = "{\"result\":0,\"size_info\":\"";
    ASSERT_THAT(reply.value_or("none"), testing::StartsWith(start));
    std::string report;
    base64_decode(reply->substr(start.size()), report);
    EXPECT_THAT(report, HasSubstr("\nargv=getfattr\nargv=--only-values\nargv=--absolute-names\nargv=-n\n"
                                  "argv=trusted.tm.cloud_usage\nargv=/tmp/x\n"));
    EXPECT_THAT(report, HasSubstr("\nenv=USAGE_TEST=inherited\n"));
}

} // namespace
