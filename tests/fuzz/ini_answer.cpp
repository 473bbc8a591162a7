// What the host's configuration reader and its hardware tool print, as the daemon takes it in.
#include "fuzz.h"
#include "host_answers.h"
#include "host_config.h"

namespace {

constexpr std::string_view kBefore = "as it was";

void check_configuration(std::string_view printed) {
    std::string value(kBefore);
    const int found = ks_get_ini_info(nullptr, "Section", "Field", value);
    const std::string_view taken = printed.substr(0, 127);
    const std::string_view text = taken.substr(0, taken.find('\0'));
    require((found != 0) == (!text.empty() && !text.starts_with("CFGREAD_FAILD")), "found when there is something");
    require(value == (found != 0 ? text.substr(0, text.find('\n')) : kBefore), "the first line, or what was there");
}

void check_product_data() {
    std::string value;
    const int status = system_call_hwctl_vpdget("0:9", value);
    require(status == 0 || status == -2, "a status of the two");
    require(status != 0 || value.find_first_of(" \n") != 0, "no blank before the value");
    require(status != 0 || value.empty() || std::string_view(" \n").find(value.back()) == std::string_view::npos,
            "no blank behind the value");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const host_answers answers; // for as long as the process lives
    const std::string_view printed = text_of(data, size);
    answers.set(printed, 0);
    check_configuration(printed);
    check_product_data();
    return 0;
}
