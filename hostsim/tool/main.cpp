// hosttool: every stand-in tool of the simulated host. It records how it was called, follows the knobs that a test has
// set, and otherwise does the job of the tool it was started as. Started as itself with --paths it lists the tools.

#include "record.h"
#include "tool.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

long number(const std::string& text) {
    return std::strtol(text.c_str(), nullptr, 10);
}

// Ends the process by `signal`, even one that it was started with ignored or blocked.
void end_by(int signal) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    (void)std::signal(signal, SIG_DFL);
    (void)sigprocmask(SIG_UNBLOCK, &one, nullptr);
    (void)raise(signal);
}

// Answers as the knobs say, or does the job. @return the exit status.
int answer(const tool& self, const tool_files& files, const arguments& args) {
    if (const auto delay = files.knob("delay_ms")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(number(*delay)));
    }
    if (const auto errors = files.knob("stderr")) {
        std::cerr << *errors << std::flush;
    }
    const auto output = files.knob("stdout");
    const auto status = files.knob("exit");
    const auto signal = files.knob("signal");
    if (!output && !status && !signal) {
        return self.job(args);
    }
    std::cout << output.value_or("") << std::flush;
    if (signal) {
        end_by(static_cast<int>(number(*signal)));
    }
    return status ? static_cast<int>(number(*status)) : 0;
}

int list_paths() {
    for (const tool& each : all_tools()) {
        std::cout << each.path << '\n';
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const started_with start;
    try {
        const tool* self = running_tool();
        if (self == nullptr) {
            return argc == 2 && std::string(argv[1]) == "--paths" ? list_paths() : 2;
        }
        tool_files files(self->path);
        files.record(start, argc, argv);
        return answer(*self, files, argc > 0 ? arguments(argv + 1, argv + argc) : arguments());
    } catch (const std::exception& failure) {
        (void)fprintf(stderr, "hosttool: %s\n", failure.what());
        return 2;
    }
}
