// A program for the runner's tests to start. It shows what a child was given, or does one thing that a tool might do:
//
//     child_probe report [ARGUMENT...]   argv, environment, descriptors, signals and limit, one "key=value" a line
//     child_probe exit STATUS            ends with that status
//     child_probe raise SIGNAL           ends by that signal
//     child_probe print TEXT             TEXT to standard output, without a line feed
//     child_probe both                   "out1" "err1" "out2" "err2", a line each, to the stream of that name
//     child_probe copy                   standard input to standard output
//     child_probe copy-error             standard input to standard error
//     child_probe fill BYTES             that many "x" to standard output
//     child_probe drain                  reads standard input to its end, prints nothing
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

void print_descriptors() {
    std::cout << "fds=";
    for (int fd = 0; fd < 1024; ++fd) { // not by /proc/self/fd: a test may forbid its reading
        if (::fcntl(fd, F_GETFD) != -1) {
            std::cout << fd << ' ';
        }
    }
    std::cout << '\n';
}

void print_signals() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigBlk:", 0) == 0 || line.rfind("SigIgn:", 0) == 0) {
            std::cout << line.substr(0, 6) << '=' << line.substr(line.find_last_of(" \t") + 1) << '\n';
        }
    }
}

int report(int argc, char** argv) {
    print_descriptors(); // first, before anything else is opened
    for (int i = 0; i < argc; ++i) {
        std::cout << "argv=" << argv[i] << '\n';
    }
    for (char** entry = ::environ; *entry != nullptr; ++entry) {
        std::cout << "env=" << *entry << '\n';
    }
    print_signals();
    struct rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    std::cout << "nofile=" << limit.rlim_cur << '\n';
    return 0;
}

int copy(std::ostream& to) {
    std::vector<char> chunk(4096);
    for (ssize_t count = 0; (count = ::read(STDIN_FILENO, chunk.data(), chunk.size())) > 0;) {
        to.write(chunk.data(), count);
    }
    to.flush();
    return 0;
}

int print_both() {
    for (const char* number : {"1", "2"}) {
        std::cout << "out" << number << std::endl;
        std::cerr << "err" << number << std::endl;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string action = argc > 1 ? argv[1] : "report";
    const std::string operand = argc > 2 ? argv[2] : "";
    if (action == "exit") {
        return std::stoi(operand);
    }
    if (action == "raise") {
        return ::raise(std::stoi(operand));
    }
    if (action == "print") {
        std::cout << operand;
        return 0;
    }
    if (action == "both") {
        return print_both();
    }
    if (action == "copy") {
        return copy(std::cout);
    }
    if (action == "copy-error") {
        return copy(std::cerr);
    }
    if (action == "fill") {
        std::cout << std::string(std::stoul(operand), 'x');
        return 0;
    }
    if (action == "drain") {
        while (std::cin.get() != EOF) {
        }
        return 0;
    }
    return report(argc, argv);
}
