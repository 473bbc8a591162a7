// Running a child and waiting for it, beside posix_spawn(3) and waitpid(2) with the same redirections. Also in a parent
// that holds much memory, which must make no difference.
#include "bench_main.h"
#include "runner.h"

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kProgram = "/bin/true";
constexpr size_t kMiB = size_t{1024} * 1024;

// Processor time of this process and of the children that it has waited for, in seconds.
double processor_time() {
    timespec own = {};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &own);
    rusage children = {};
    (void)getrusage(RUSAGE_CHILDREN, &children);
    return static_cast<double>(own.tv_sec + children.ru_utime.tv_sec + children.ru_stime.tv_sec) +
           static_cast<double>(own.tv_nsec) * 1e-9 +
           static_cast<double>(children.ru_utime.tv_usec + children.ru_stime.tv_usec) * 1e-6;
}

int spawn_and_wait() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char name[] = "true";
    char* argv[] = {name, nullptr};
    char* environment[] = {nullptr};
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, kProgram, &actions, nullptr, argv, environment) == 0) {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    posix_spawn_file_actions_destroy(&actions);
    return status;
}

int run_and_wait() {
    return lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kProgram, nullptr);
}

// Memory that is there for good: touched page by page, and kept from one benchmark to the next of the same size.
void hold(size_t size) {
    static std::vector<char> held;
    if (held.size() != size) {
        std::vector<char>(size, 1).swap(held);
    }
}

void measure(benchmark::State& state, int (*operation)(), size_t held) {
    hold(held);
    for (auto _ : state) {
        const double begin = processor_time();
        if (operation() != 0) {
            state.SkipWithError("the child failed");
            break;
        }
        state.SetIterationTime(processor_time() - begin);
    }
}

void add(const std::string& name, size_t held) {
    benchmark::RegisterBenchmark((name + ":baseline").c_str(), measure, spawn_and_wait, held)->UseManualTime();
    benchmark::RegisterBenchmark((name + ":subject").c_str(), measure, run_and_wait, held)->UseManualTime();
}

} // namespace

int main(int argc, char** argv) {
    add("child run", 0);
    add("child run from 512 MiB", 512 * kMiB);
    return run_benchmarks(argc, argv);
}
