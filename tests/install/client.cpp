// The C++ header as a program has it from an installed tree, with exceptions or without: serves, calls itself, calls
// nobody, exits with 0.
#include <cstdio>
#include <kservice.hpp>

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    kservice::service service(argv[1], 1, [](kservice::request& request) { (void)request.reply("pong"); });
    service.start();
    const auto reply = kservice::call(argv[1], "ping");
    service.stop();
    if (!reply || *reply != "pong" || kservice::call(argv[1], "ping").error() != kservice::status::no_service) {
        return 1;
    }
    (void)std::puts("served");
#ifdef __cpp_exceptions
    try {
        (void)kservice::call(argv[1], "ping").value();
    } catch (const kservice::call_error& error) {
        (void)std::puts(error.what());
    }
#endif
    return 0;
}
