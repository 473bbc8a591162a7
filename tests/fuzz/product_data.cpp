// The two parsers of product-data texts.
#include "fuzz.h"
#include "host_config.h"

#include <algorithm>
#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(text_of(data, size));
    std::string area;
    parser_VPD_ext_area_from_str(text, &area);
    require(area.find_first_of(" \n") == std::string::npos, "an area without blanks");
    require(static_cast<std::ptrdiff_t>(text.size() - area.size()) ==
                std::count_if(text.begin(), text.end(), [](char c) { return c == ' ' || c == '\n'; }),
            "nothing but blanks is left out");
    std::string id = "id";
    std::string serial = "serial";
    try {
        parser_VPD_SN_from_str(text, &id, &serial);
        require(text.find(id) != std::string::npos && text.find(serial) != std::string::npos, "parts of the text");
    } catch (const std::out_of_range&) {
        require(id == "id" && serial == "serial", "refused, and nothing touched");
    }
    return 0;
}
