// vsh COMMAND [KEY=VALUE...]: the host's shell wrapper, of which only the remote-browser containers are here. It keeps
// none: each command answers with what it was asked for.

#include "tool.h"

#include <iostream>

int browse_remotely(const arguments& args) {
    if (args.empty() || args[0].rfind("web-kiosk.container", 0) != 0) {
        std::cerr << "vsh: unknown command\n";
        return 1;
    }
    std::cout << "command=" << args[0] << '\n';
    for (std::size_t i = 1; i < args.size(); ++i) {
        std::cout << args[i] << '\n';
    }
    std::cout << "status=0\n";
    return 0;
}
