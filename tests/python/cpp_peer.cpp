// Both sides made with the C++ header, to be checked by "ksctl conform":
//   cpp_peer serve NAME                     answers with the request, until its standard input ends
//   cpp_peer call SERVICE COMMAND REQUEST   prints the reply
#include "kservice.hpp"

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 2 && words[0] == "serve") {
        kservice::service service(words[1], 2, [](kservice::request& request) { (void)request.reply(request.text()); });
        service.start();
        (void)std::puts("ready");
        (void)std::fflush(stdout);
        while (std::getchar() != EOF) {
        }
        return 0;
    }
    if (words.size() != 4 || words[0] != "call") {
        return 2;
    }
    const auto reply = kservice::call(words[1], words[2], words[3]);
    if (!reply) {
        std::cerr << kservice::describe(reply.error()) << '\n';
        return 1;
    }
    std::cout << *reply;
}
