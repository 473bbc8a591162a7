// A service that crashes in a worker, for the test of the crash reporter:
//
//     crash_probe SOCKET    publishes itself at that path, calls itself, and faults while it serves
//
// The functions have names that the dynamic loader knows (the program exports them), so that the report can show them.
#include "kservice.h"

#include <csignal>
#include <string>

extern "C" {

__attribute__((noinline)) int crash_probe_innermost(int signal) {
    const int raised = raise(signal);
    return raised + 1; // not a tail call: its frame must be there
}

__attribute__((noinline)) int crash_probe_serve(const char* /*command*/, ks_io* io, int /*fd*/) {
    const int result = crash_probe_innermost(SIGSEGV);
    ks_io_free(io);
    return result;
}
}

int main(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    const std::string name = std::string("@") + argv[1];
    ks_backtrace();
    ks_handle* service = ks_create(name.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, crash_probe_serve);
    ks_start(service);
    (void)ks_ez_call(name.c_str(), "crash", nullptr, 0, nullptr, nullptr, 5, -1);
    return 3; // not reached: the reporter ends the process
}
