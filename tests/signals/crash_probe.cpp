// A service that crashes in a worker, for the tests of the crash reporter:
//
//     crash_probe SOCKET [SIGNAL [DEPTH]]
//
// publishes itself at that path, calls itself, and raises SIGNAL (SIGSEGV if not said) while it serves, DEPTH calls
// further down (none if not said). SIGNAL 0 stands for a jump into a page of no file, -1 for one to exported data. The
// functions have names that the dynamic loader knows (the program exports them), so that the report can show them.
#include "kservice.h"

#include <csignal>
#include <string>
#include <sys/mman.h>

namespace {
int fatal_signal = SIGSEGV;
int calls_to_go = 0;
} // namespace

extern "C" {

char crash_probe_data[64]; // writable: constants may share the code's pages, which can be executed

__attribute__((noinline)) int crash_probe_innermost(int signal) {
    void* place = signal == 0 ? mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                              : static_cast<void*>(crash_probe_data);
    const int raised = signal > 0 ? raise(signal) : reinterpret_cast<int (*)()>(place)();
    return raised + 1; // not a tail call: its frame must be there
}

// One frame a call: the volatile variable keeps the optimiser from making a loop of it.
__attribute__((noinline)) int crash_probe_descend(int calls) {
    volatile int deeper = 0;
    deeper = calls > 0 ? crash_probe_descend(calls - 1) : crash_probe_innermost(fatal_signal);
    return deeper + 1;
}

__attribute__((noinline)) int crash_probe_serve(const char* /*command*/, ks_io* io, int /*fd*/) {
    const int result = calls_to_go > 0 ? crash_probe_descend(calls_to_go - 1) : crash_probe_innermost(fatal_signal);
    ks_io_free(io);
    return result;
}
}

int main(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    const std::string name = std::string("@") + argv[1];
    fatal_signal = argc > 2 ? std::stoi(argv[2]) : fatal_signal;
    calls_to_go = argc > 3 ? std::stoi(argv[3]) : calls_to_go;
    ks_backtrace();
    ks_handle* service = ks_create(name.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, crash_probe_serve);
    ks_start(service);
    (void)ks_ez_call(name.c_str(), "crash", nullptr, 0, nullptr, nullptr, 5, -1);
    return 3; // not reached: the reporter ends the process
}
