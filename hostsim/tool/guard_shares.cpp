// no_del_share add SHARE OWNER | remove SHARE: the shares that may not be deleted, one line "SHARE OWNER" each in
// /etc/config/no_del_share.

#include "tool.h"

#include <fstream>
#include <iostream>

namespace {

constexpr const char* kGuarded = "/etc/config/no_del_share";

} // namespace

int guard_shares(const arguments& args) {
    const bool add = args.size() == 3 && args[0] == "add";
    const bool remove = args.size() == 2 && args[0] == "remove";
    if (!add && !remove) {
        std::cerr << "usage: no_del_share add SHARE OWNER | remove SHARE\n";
        return 2;
    }
    std::string kept;
    std::ifstream list(kGuarded);
    for (std::string line; std::getline(list, line);) {
        if (line.substr(0, line.rfind(' ')) != args[1]) {
            kept += line + '\n';
        }
    }
    if (add) {
        kept += args[1] + ' ' + args[2] + '\n';
    }
    std::ofstream changed(kGuarded);
    return changed << kept ? 0 : 1;
}
