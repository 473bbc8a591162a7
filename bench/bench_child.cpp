// Running a child beside the least that does the same: vfork(2) and execve(2) of the same program with the same
// redirections and environment. Once waiting for its end, also in a parent that holds much memory, which must make no
// difference; once reading what it prints, through a pipe.
#include "bench_main.h"
#include "runner.h"
#include "scoped.h"
#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kProgram = "/bin/true";
constexpr const char* kTalker = "/bin/echo";
constexpr std::string_view kItsWords = "hi\n";
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

// The child's part works in the parent's memory: system calls only. Not inlined, so that its locals stay its own.
[[noreturn, gnu::noinline]] void become(const char* path, char* const* argv, char* const* envp, int out_fd,
                                        int err_fd) {
    if (dup2(out_fd, STDOUT_FILENO) == STDOUT_FILENO && dup2(err_fd, STDERR_FILENO) == STDERR_FILENO) {
        (void)execve(path, argv, envp);
    }
    _exit(127);
}

pid_t start(const char* path, char* const* argv, char* const* envp, int out_fd, int err_fd) {
    const pid_t pid = vfork();
    if (pid == 0) {
        become(path, argv, envp, out_fd, err_fd);
    }
    return pid;
}

int wait_for(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

unique_fd null_device() {
    return unique_fd(open("/dev/null", O_RDWR | O_CLOEXEC));
}

bool run_barely() {
    const unique_fd out = null_device();
    const unique_fd err = null_device();
    std::string name = "true";
    const std::array<char*, 2> argv = {name.data(), nullptr};
    const std::array<char*, 1> no_environment = {nullptr};
    return wait_for(start(kProgram, argv.data(), no_environment.data(), out.get(), err.get())) == 0;
}

bool run() {
    return lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kProgram, nullptr) == 0;
}

bool listen_barely() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    const unique_fd read_end(ends[0]);
    unique_fd write_end(ends[1]);
    const unique_fd err = null_device();
    std::string name = "echo";
    std::string word = "hi";
    const std::array<char*, 3> argv = {name.data(), word.data(), nullptr};
    const pid_t pid = start(kTalker, argv.data(), environ, write_end.get(), err.get());
    write_end.reset();
    std::string text;
    std::array<char, 4096> piece{};
    ssize_t count = 0;
    while ((count = read(read_end.get(), piece.data(), piece.size())) > 0) {
        text.append(piece.data(), static_cast<size_t>(count));
    }
    return wait_for(pid) == 0 && text == kItsWords;
}

bool listen() {
    const unique_pipe child(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", kTalker, "hi", nullptr));
    return child && read_output(child.get()) == kItsWords;
}

// Memory that is there for good: touched page by page, and kept from one benchmark to the next of the same size.
void hold(size_t size) {
    static std::vector<char> held;
    if (held.size() != size) {
        std::vector<char>(size, 1).swap(held);
    }
}

void measure(benchmark::State& state, bool (*operation)(), size_t held) {
    hold(held);
    for (auto _ : state) {
        const double begin = processor_time();
        if (!operation()) {
            state.SkipWithError("the child failed");
            break;
        }
        state.SetIterationTime(processor_time() - begin);
    }
}

void add(const std::string& name, bool (*baseline)(), bool (*project)(), size_t held) {
    benchmark::RegisterBenchmark((name + ":baseline").c_str(), measure, baseline, held)->UseManualTime();
    benchmark::RegisterBenchmark((name + ":project").c_str(), measure, project, held)->UseManualTime();
}

} // namespace

int main(int argc, char** argv) {
    add("child run", run_barely, run, 0);
    add("child run from 512 MiB", run_barely, run, 512 * kMiB);
    add("child run with a pipe", listen_barely, listen, 0);
    return run_benchmarks(argc, argv);
}
