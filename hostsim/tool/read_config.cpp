// cfgread SECTION FIELD [-c] [-d DEFAULT] [-f FILE]: prints one value of an INI file, or the default.

#include "ini_file.h"
#include "tool.h"

#include <iostream>
#include <optional>

int read_config(const arguments& args) {
    std::string file = "/etc/config/host.conf"; // the host's own settings
    std::optional<std::string> fallback;
    arguments names;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const bool has_next = i + 1 < args.size();
        if (args[i] == "-d" && has_next) {
            fallback = args[++i];
        } else if (args[i] == "-f" && has_next) {
            file = args[++i];
        } else if (args[i] != "-c") { // -c: comments are skipped, which this one does anyway
            names.push_back(args[i]);
        }
    }
    if (names.size() != 2) {
        std::cerr << "usage: cfgread SECTION FIELD [-c] [-d DEFAULT] [-f FILE]\n";
        return 2;
    }
    const auto value = ini_value(file, names[0], names[1]);
    if (!value && !fallback) {
        return 1;
    }
    std::cout << value.value_or(fallback.value_or("")) << '\n';
    return 0;
}
