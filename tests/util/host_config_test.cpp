// Configuration and product data. The host's two tools are scripts that the test installs at their fixed paths, in the
// disposable root of the simulated host.
#include "host_config.h"
#include "test_files.h"

#include <gmock/gmock.h>

#include <csignal>
#include <stdexcept>
#include <sys/stat.h>

namespace {

class HostConfigTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_STREQ(::getenv("HOSTSIM"), "1") << "would write to the machine's own /sbin and /etc";
    }

    // Installs a tool that records its arguments, one a line, and answers with what `body` prints.
    void install(const std::string& path, const std::string& body) const {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        write_file(path, "#!/bin/sh\nprintf '%s\\n' \"$@\" > " + (folder / "argv") + "\n" + body + "\n");
        ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    }
    void install_cfgread(const std::string& body) const { install("/sbin/cfgread", body); }
    void install_hwctl(const std::string& body) const { install("/sbin/hwctl", body); }

    std::string recorded() const { return read_file(folder / "argv"); }

    test_folder folder;
};

TEST_F(HostConfigTest, ReadsAValueOfTheNamedFile) {
    install_cfgread("echo '/share/app dir'");
    std::string value = "old";
    EXPECT_NE(ks_get_ini_info("/etc/config/zpkg.conf", "VexHubServer", "Install_Path", value), 0);
    EXPECT_EQ(value, "/share/app dir");
    EXPECT_EQ(recorded(), "VexHubServer\nInstall_Path\n-c\n-d\nCFGREAD_FAILD\n-f\n/etc/config/zpkg.conf\n");
}

TEST_F(HostConfigTest, ReadsTheDefaultFileWhenNoneIsNamed) {
    install_cfgread("echo x");
    std::string value;
    EXPECT_NE(ks_get_ini_info(nullptr, "s", "f", value), 0);
    EXPECT_EQ(recorded(), "s\nf\n-c\n-d\nCFGREAD_FAILD\n");
}

TEST_F(HostConfigTest, AMissingFieldIsNotFoundAndLeavesTheValue) {
    std::string value = "old";
    for (const char* body : {"echo $5", "printf CFGREAD_FAILD", "echo CFGREAD_FAILDxyz", "true", "printf '\\0x\\n'"}) {
        install_cfgread(body);
        EXPECT_EQ(ks_get_ini_info("/f", "s", "f", value), 0) << body;
        EXPECT_EQ(value, "old") << body;
    }
}

TEST_F(HostConfigTest, WithoutTheToolNothingIsFound) {
    std::error_code ignored;
    std::filesystem::remove("/sbin/cfgread", ignored);
    std::string value = "old";
    EXPECT_EQ(ks_get_ini_info("/f", "s", "f", value), 0);
    EXPECT_EQ(value, "old");
}

TEST_F(HostConfigTest, OnlyTheFirstLineCountsAndItMayBeEmpty) {
    std::string value;
    install_cfgread("printf 'one\\ntwo\\n'");
    EXPECT_NE(ks_get_ini_info("/f", "s", "f", value), 0);
    EXPECT_EQ(value, "one");
    install_cfgread("printf 'no newline'");
    EXPECT_NE(ks_get_ini_info("/f", "s", "f", value), 0);
    EXPECT_EQ(value, "no newline");
    install_cfgread("echo");
    EXPECT_NE(ks_get_ini_info("/f", "s", "f", value), 0);
    EXPECT_EQ(value, "");
}

TEST_F(HostConfigTest, LinesAreReadUpTo127Characters) {
    std::string value;
    install_cfgread("echo " + std::string(126, 'a'));
    EXPECT_NE(ks_get_ini_info("/f", "s", "f", value), 0);
    EXPECT_EQ(value, std::string(126, 'a'));
    install_cfgread("echo " + std::string(500, 'b'));
    EXPECT_NE(ks_get_ini_info("/f", "s", "f", value), 0);
    EXPECT_EQ(value, std::string(127, 'b'));
}

TEST_F(HostConfigTest, ALineThatComesInPiecesIsOneLine) {
    install_cfgread("printf a; /bin/true; printf 'b\\n'");
    std::string value;
    EXPECT_NE(ks_get_ini_info("/f", "s", "f", value), 0);
    EXPECT_EQ(value, "ab");
}

TEST_F(HostConfigTest, AProcessThatAToolLeavesBehindIsNotWaitedFor) {
    const std::string left_behind = "sleep 300 & echo $! > " + (folder / "pid") + "; ";
    const auto ends_now = [&] { return ::kill(std::stoi("0" + read_file(folder / "pid")), SIGKILL) == 0; };
    EXPECT_TRUE(passes_in_own_process([&] {
        std::string value;
        install_cfgread(left_behind + "echo x");
        EXPECT_NE(ks_get_ini_info("/f", "s", "f", value), 0);
        EXPECT_EQ(value, "x");
        EXPECT_TRUE(ends_now());
        install_hwctl(left_behind + "echo k=v");
        value.clear();
        EXPECT_EQ(system_call_hwctl_vpdget("0:9", value), 0);
        EXPECT_EQ(value, "v");
        EXPECT_TRUE(ends_now());
    }));
}

TEST_F(HostConfigTest, NoChildIsLeftBehind) {
    install_cfgread("echo x");
    install_hwctl("echo x");
    std::string value;
    (void)ks_get_ini_info("/f", "s", "f", value);
    (void)system_call_hwctl_vpdget("0:1", value);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(HostConfigTest, ProductDataFieldIsTheTextAfterTheEqualsSign) {
    install_hwctl("echo 'vpd channel =  abc d \n'");
    std::string value;
    EXPECT_EQ(system_call_hwctl_vpdget("0:9", value), 0);
    EXPECT_EQ(value, "abc d");
    EXPECT_EQ(recorded(), "--vpd_get_field\nenc_sys_id=root,obj_index=0:9\n");
}

TEST_F(HostConfigTest, ProductDataSelectorIsCutTo63Characters) {
    install_hwctl("echo k=v");
    std::string value;
    EXPECT_EQ(system_call_hwctl_vpdget(std::string(100, '7').c_str(), value), 0);
    EXPECT_EQ(recorded(), "--vpd_get_field\nenc_sys_id=root,obj_index=" + std::string(37, '7') + "\n");
}

TEST_F(HostConfigTest, ProductDataThatIsNotOnePairIsLeftRaw) {
    for (const char* raw : {"a = b = c\n", "nothing\n", "==\n", "only=", ""}) {
        write_file(folder / "answer", raw);
        install_hwctl("cat " + (folder / "answer"));
        std::string value;
        EXPECT_EQ(system_call_hwctl_vpdget("0:7", value), -2) << raw;
        EXPECT_EQ(value, raw);
    }
}

TEST_F(HostConfigTest, LongProductDataIsReadWhole) {
    install_hwctl("printf 'k=%s' " + std::string(5000, 'v'));
    std::string value;
    EXPECT_EQ(system_call_hwctl_vpdget("0:7", value), 0);
    EXPECT_EQ(value, std::string(5000, 'v'));
}

TEST_F(HostConfigTest, ProductDataIsAppendedToWhatTheCallerPasses) {
    install_hwctl("printf '=v'");
    std::string value = "k";
    EXPECT_EQ(system_call_hwctl_vpdget("0:7", value), 0);
    EXPECT_EQ(value, "v");
}

TEST_F(HostConfigTest, WithoutTheProductDataToolTheCallFails) {
    std::error_code ignored;
    std::filesystem::remove("/sbin/hwctl", ignored);
    std::string value;
    EXPECT_EQ(system_call_hwctl_vpdget("0:7", value), -2);
}

TEST_F(HostConfigTest, AuthorityFileExistsEvenWhenEmpty) {
    std::filesystem::create_directories("/etc/stunnel");
    std::filesystem::remove("/etc/stunnel/uca.pem");
    EXPECT_EQ(get_uca_file_exist(), 0);
    write_file("/etc/stunnel/uca.pem", "");
    EXPECT_EQ(get_uca_file_exist(), 1);
}

TEST(ProductDataTextTest, ExtensionAreaLosesBlanksAndNewlines) {
    std::string out = "old";
    parser_VPD_ext_area_from_str(" a b\nc \n", &out);
    EXPECT_EQ(out, "abc");
}

TEST(ProductDataTextTest, SerialNumberTextGivesItsTwoValues) {
    std::string id;
    std::string serial;
    parser_VPD_SN_from_str("x = y, enc_sys_id = root_1, SN = Q123B45\n", &id, &serial);
    EXPECT_EQ(id, "root_1");
    EXPECT_EQ(serial, "Q123B45");
}

TEST(ProductDataTextTest, KeptTextsWithoutTheKeysThrow) {
    std::string id = "old";
    std::string serial = "old";
    EXPECT_THROW(parser_VPD_SN_from_str("", &id, &serial), std::out_of_range);
    EXPECT_THROW(parser_VPD_SN_from_str("enc_sys_id", &id, &serial), std::out_of_range);
    EXPECT_THROW(parser_VPD_SN_from_str("enc_sys_id = a,SN", &id, &serial), std::out_of_range);
    EXPECT_EQ(id, "old");
    EXPECT_EQ(serial, "old");
    parser_VPD_SN_from_str("enc_sys_id = a,SN = ", &id, &serial);
    EXPECT_EQ(serial, "") << "nothing after the key";
}

TEST(TlsSettingsTest, AreFixed) {
    std::string out = "old";
    EXPECT_EQ(get_ssl_protocol_ver(out), 0);
    EXPECT_EQ(out, "old");
    EXPECT_EQ(get_ssl_protocol(out), 0);
    EXPECT_EQ(out, "All -SSLv2 -SSLv3 -TLSv1 -TLSv1.1");
    EXPECT_EQ(get_ssl_cipher(out), 0);
    EXPECT_EQ(out, "EECDH+CHACHA20:EECDH+AES");
}

} // namespace
