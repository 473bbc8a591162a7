// zcli -l user=NAME pw=PASSWORD: logs a user in and prints the session, below a heading. The one password that this
// host knows is "secret", for every user.

#include "tool.h"

#include <iostream>

int log_in(const arguments& args) {
    if (args.size() != 3 || args[0] != "-l" || !args[1].starts_with("user=") || !args[2].starts_with("pw=")) {
        std::cerr << "usage: zcli -l user=NAME pw=PASSWORD\n";
        return 2;
    }
    if (args[2] != "pw=secret") {
        std::cout << "Login failed.\n";
        return 1;
    }
    std::cout << "User Session Admin\n" << args[1].substr(5) << " s0ab12cd yes\n";
    return 0;
}
