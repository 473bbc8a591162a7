#include "host_config.h"

#include "argument_vector.h"
#include "runner.h"
#include "scoped.h"
#include "text.h"

#include <array>
#include <cstdio>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

// What the tool is told to print for a missing field, and so recognised by: misspelt on both sides alike.
constexpr const char* kMissing = "CFGREAD_FAILD";

constexpr std::size_t kLineLimit = 127; // characters of the tool's answer that are looked at

} // namespace

int ks_get_ini_info(const char* file, const char* section, const char* field, std::string& value) {
    std::vector<std::string> arguments = {base_name(kConfigReader), section, field, "-c", "-d", kMissing};
    if (file != nullptr) {
        arguments.insert(arguments.end(), {"-f", file});
    }
    const argument_vector argv(std::move(arguments));
    const unique_pipe tool(lyn_vexprod_corvo_popen_v_v2(nullptr, nullptr, nullptr, "r", kConfigReader, argv.data()));
    if (!tool) {
        return 0;
    }
    const std::string output = read_output(tool.get(), kLineLimit);
    const std::string_view text(output.c_str()); // up to a NUL
    if (text.empty() || text.starts_with(kMissing)) {
        return 0;
    }
    value = text.substr(0, text.find('\n'));
    return 1;
}

int system_call_hwctl_vpdget(const char* obj_index, std::string& value) {
    std::array<char, 64> selector{};
    (void)std::snprintf(selector.data(), selector.size(), "enc_sys_id=root,obj_index=%s", obj_index);
    {
        const unique_pipe tool(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", kHardwareTool,
                                                          "--vpd_get_field", selector.data(), nullptr));
        if (!tool) {
            return -2;
        }
        value += read_output(tool.get());
    }
    std::vector<std::string> pieces = str_split_to_vector(value, "=", true);
    if (pieces.size() != 2) {
        return -2;
    }
    trim_front_and_end(pieces[1], " \n");
    value = std::move(pieces[1]);
    return 0;
}

void parser_VPD_ext_area_from_str(const std::string& text, std::string* out) {
    *out = text;
    trim_char(*out, " \n");
}

void parser_VPD_SN_from_str(const std::string& text, std::string* enc_sys_id, std::string* serial) {
    constexpr std::size_t kEncSysIdOffset = std::string_view("enc_sys_id = ").size();
    constexpr std::size_t kSerialOffset = std::string_view("SN = ").size();

    const std::size_t key = text.find("enc_sys_id");
    const std::size_t comma = text.find(',', key);
    const std::size_t id_start = key + kEncSysIdOffset;
    const std::size_t serial_start = text.find("SN") + kSerialOffset;
    std::string id = text.substr(id_start, comma - id_start);
    std::string number = text.substr(serial_start, text.size() - serial_start - 1); // less the newline at the end
    *enc_sys_id = std::move(id);
    *serial = std::move(number);
}

int get_ssl_protocol(std::string& out) {
    out = "All -SSLv2 -SSLv3 -TLSv1 -TLSv1.1";
    return 0;
}

int get_ssl_cipher(std::string& out) {
    out = "EECDH+CHACHA20:EECDH+AES";
    return 0;
}

int get_ssl_protocol_ver(std::string& /*out*/) {
    return 0;
}

int get_uca_file_exist() {
    struct stat status = {};
    return ::stat(kChainCertificate, &status) == 0 ? 1 : 0;
}
