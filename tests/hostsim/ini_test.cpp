// The host's configuration reader and its hardware tool, run as the daemon runs them.

#include "shell.h"
#include "test_files.h"

#include <gtest/gtest.h>

namespace {

class HostConfigTool : public testing::Test {
protected:
    // What the tool prints for [section] field of a file with `content`; "missing\n" is the default.
    static std::string value_of(const std::string& content, const std::string& section, const std::string& field) {
        write_file("/etc/test.conf", content);
        const auto result = shell("/sbin/cfgread '" + section + "' '" + field + "' -c -d missing -f /etc/test.conf");
        EXPECT_EQ(exit_code(result), 0);
        return result.output;
    }
};

TEST_F(HostConfigTool, PrintsTheValueOfTheSectionAskedFor) {
    const char* content = "[a]\nkey = one\n[b]\nkey = two\n";
    EXPECT_EQ(value_of(content, "a", "key"), "one\n");
    EXPECT_EQ(value_of(content, "b", "key"), "two\n");
}

TEST_F(HostConfigTool, ComparesNamesExactly) {
    const char* content = "[Section]\nField = x\n";
    EXPECT_EQ(value_of(content, "section", "Field"), "missing\n");
    EXPECT_EQ(value_of(content, "Section", "field"), "missing\n");
    EXPECT_EQ(value_of(content, "Sect", "Field"), "missing\n");
    EXPECT_EQ(value_of(content, "Section", "Fiel"), "missing\n");
}

TEST_F(HostConfigTool, SkipsComments) {
    EXPECT_EQ(value_of("[a]\n#key = one\n  ; key = two\nkey = three\n", "a", "key"), "three\n");
    EXPECT_EQ(value_of("#[a]\n#key = one\n", "a", "key"), "missing\n");
}

TEST_F(HostConfigTool, KeepsWhatFollowsTheFirstEqualsSign) {
    EXPECT_EQ(value_of("[a]\nkey = b=c # d\n", "a", "key"), "b=c # d\n");
}

TEST_F(HostConfigTool, TrimsBlanksAndLineEnds) {
    EXPECT_EQ(value_of("[ a ]\r\n\tkey\t=  two words \r\n", "a", "key"), "two words\n");
}

TEST_F(HostConfigTool, PrintsAnEmptyLineForAnEmptyValue) {
    EXPECT_EQ(value_of("[a]\nkey =\n", "a", "key"), "\n");
}

TEST_F(HostConfigTool, TakesTheFirstOfEqualFieldsAndRejoinsSplitSections) {
    const char* content = "[a]\nkey = one\nkey = two\n[b]\n[a]\nlate = three\n";
    EXPECT_EQ(value_of(content, "a", "key"), "one\n");
    EXPECT_EQ(value_of(content, "a", "late"), "three\n");
}

TEST_F(HostConfigTool, ReadsALastLineWithoutNewline) {
    EXPECT_EQ(value_of("[a]\nkey = x", "a", "key"), "x\n");
}

TEST_F(HostConfigTool, PrintsTheDefaultWhenTheFileIsMissing) {
    EXPECT_EQ(shell("/sbin/cfgread a b -c -d CFGREAD_FAILD -f /nonexistent").output, "CFGREAD_FAILD\n");
}

TEST_F(HostConfigTool, FailsSilentlyWithoutADefault) {
    const auto result = shell("/sbin/cfgread a b -f /nonexistent");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(exit_code(result), 1);
}

TEST_F(HostConfigTool, ReadsTheHostsOwnSettingsWithoutAFile) {
    write_file("/etc/config/host.conf", "[System]\nName = testhost\n");
    EXPECT_EQ(shell("/sbin/cfgread System Name").output, "testhost\n");
}

TEST_F(HostConfigTool, FindsTheInstalledPackage) {
    EXPECT_EQ(shell("/sbin/cfgread VexHubServer Install_Path -f /etc/config/zpkg.conf").output,
              "/share/VexHubServer\n");
    EXPECT_EQ(shell("/sbin/cfgread CayinMediaViewer Enable -d no -f /etc/config/zpkg.conf").output, "no\n");
}

TEST(HardwareTool, PrintsOneFieldAsNameEqualsValue) {
    write_file("/etc/vpd.conf", "[root]\n0:7 = MODEL-1\n");
    EXPECT_EQ(shell("/sbin/hwctl --vpd_get_field enc_sys_id=root,obj_index=0:7").output, "vpd_field = MODEL-1\n");
}

TEST(HardwareTool, FailsForAnUnknownField) {
    const auto result = shell("/sbin/hwctl --vpd_get_field enc_sys_id=root,obj_index=9:9 2>&1");
    EXPECT_EQ(result.output, "hwctl: no such product data: enc_sys_id=root,obj_index=9:9\n");
    EXPECT_EQ(exit_code(result), 1);
}

TEST(HardwareTool, PrintsAPieceOfTheExtendedArea) {
    write_file("/etc/vpd.conf", "[ext_area]\ndata = 0123456789\n");
    EXPECT_EQ(shell("/sbin/hwctl --vpd_get_ext_area offset=2,length=3").output, "234\n");
    EXPECT_EQ(shell("/sbin/hwctl --vpd_get_ext_area offset=8,length=100").output, "89\n");
    EXPECT_EQ(exit_code(shell("/sbin/hwctl --vpd_get_ext_area offset=10,length=1 2>/dev/null")), 1);
    EXPECT_EQ(exit_code(shell("/sbin/hwctl --vpd_get_ext_area offset=-1,length=1 2>/dev/null")), 1);
}

} // namespace
