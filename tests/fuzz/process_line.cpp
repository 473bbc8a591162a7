// A line of the process table, as another process's name makes it.
#include "fuzz.h"
#include "instance.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(text_of(data, size));
    (void)is_live_under(input, "vexprod");

    // The line of a process whose name the input is: the kernel keeps 15 characters of it, which end at a NUL.
    std::string name = input.substr(0, 15);
    name = name.c_str();
    for (const char* state : {"S", "Z"}) {
        const std::string line = "4242 (" + name + ") " + state + " 1 4242 4242 0 -1 4194560 ";
        require(is_live_under(line, name.c_str()) == (*state != 'Z'), "a process runs under its own name");
        require(is_live_under(line, "vexprod") == (*state != 'Z' && name == "vexprod"), "and under no other");
    }
    return 0;
}
