#include "options.h"

#include <cctype>
#include <cstdio>
#include <unistd.h>

options read_options(int argc, char* const* argv) {
    options result;
    opterr = 0; // we say it ourselves
    optind = 1;
    for (int option = getopt(argc, argv, "dt"); option != -1; option = getopt(argc, argv, "dt")) {
        switch (option) {
        case 'd':
            result.daemonize = true;
            break;
        case 't':
            result.terminate = true;
            break;
        case '?':
            (void)std::fprintf(stderr, "Illegal option:-%c\n",
                               std::isprint(static_cast<unsigned char>(optopt)) != 0 ? optopt : '#');
            break;
        default:
            (void)std::fprintf(stderr, "Not supported option\n");
            break;
        }
    }
    return result;
}
