// svc_keeper NAME start "COMMAND LINE": starts a service and says whether that worked. The command line is one argument
// with a pair of double quotes around it; no shell reads it.

#include "tool.h"

#include <cstdio>
#include <iostream>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

int keep_service(const arguments& args) {
    if (args.size() != 3 || args[1] != "start" || args[2].size() < 2 || args[2].front() != '"' ||
        args[2].back() != '"') {
        std::cerr << "usage: svc_keeper NAME start '\"COMMAND LINE\"'\n";
        return 2;
    }
    std::istringstream words(args[2].substr(1, args[2].size() - 2));
    arguments command;
    for (std::string word; words >> word;) {
        command.push_back(word);
    }
    std::vector<char*> argv;
    for (std::string& word : command) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t child = -1;
    int status = 0;
    if (command.empty() || posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0 ||
        waitpid(child, &status, 0) != child) {
        std::cerr << "svc_keeper: cannot start " << args[0] << '\n';
        return 1;
    }
    std::cout << args[0] << " started\n";
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
