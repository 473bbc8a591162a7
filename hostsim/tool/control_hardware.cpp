// hwctl --vpd_get_field enc_sys_id=ENCLOSURE,obj_index=INDEX | --vpd_get_ext_area offset=N,length=N
// Prints the hardware's vital product data, which this host keeps in /etc/vpd.conf: one section per enclosure with a
// value per object index, and the extended area as one string.

#include "ini_file.h"
#include "tool.h"

#include <cstdlib>
#include <iostream>

namespace {

constexpr const char* kProductData = "/etc/vpd.conf";

// The value of `name` in a selector such as "offset=0,length=8", or "".
std::string selected(const std::string& selector, const std::string& name) {
    const std::string padded = "," + selector + ",";
    const auto start = padded.find("," + name + "=");
    if (start == std::string::npos) {
        return "";
    }
    const auto value = start + name.size() + 2;
    return padded.substr(value, padded.find(',', value) - value);
}

int print_field(const std::string& selector) {
    const auto value = ini_value(kProductData, selected(selector, "enc_sys_id"), selected(selector, "obj_index"));
    if (!value) {
        std::cerr << "hwctl: no such product data: " << selector << '\n';
        return 1;
    }
    std::cout << "vpd_field = " << *value << '\n';
    return 0;
}

int print_ext_area(const std::string& selector) {
    const std::string area = ini_value(kProductData, "ext_area", "data").value_or("");
    const long offset = std::strtol(selected(selector, "offset").c_str(), nullptr, 10);
    const long length = std::strtol(selected(selector, "length").c_str(), nullptr, 10);
    if (offset < 0 || length <= 0 || static_cast<std::size_t>(offset) >= area.size()) {
        std::cerr << "hwctl: outside the extended area: " << selector << '\n';
        return 1;
    }
    std::cout << area.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(length)) << '\n';
    return 0;
}

} // namespace

int control_hardware(const arguments& args) {
    if (args.size() == 2 && args[0] == "--vpd_get_field") {
        return print_field(args[1]);
    }
    if (args.size() == 2 && args[0] == "--vpd_get_ext_area") {
        return print_ext_area(args[1]);
    }
    std::cerr << "usage: hwctl --vpd_get_field SELECTOR | --vpd_get_ext_area SELECTOR\n";
    return 2;
}
