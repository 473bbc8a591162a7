// One line of the debug log beside the system calls that it cannot do without: stat, open, write, close.
#include "bench_main.h"
#include "log.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr const char* kLine = "[01234] [Sun Nov 15 11:36:48 ] [hos_get_hwsn_handler][57] ks_io input fail.\n";
constexpr int64_t kLinesBeforeRotation = 4000; // the log starts a child to move a file of 512 KiB away

void plain_line() {
    struct stat st = {};
    (void)stat(cLogFilePath, &st);
    const int fd = open(cLogFilePath, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    (void)!write(fd, kLine, strlen(kLine));
    (void)close(fd);
}

void log_line() {
    dbg_printf2("[%s][%d] %s", "hos_get_hwsn_handler", 57, "ks_io input fail.");
}

void measure(benchmark::State& state, void (*line)()) {
    int64_t written = 0;
    (void)truncate(cLogFilePath, 0);
    for (auto _ : state) {
        line();
        if (++written % kLinesBeforeRotation == 0) {
            state.PauseTiming();
            (void)truncate(cLogFilePath, 0);
            state.ResumeTiming();
        }
    }
    struct stat st = {};
    if (stat(cLogFilePath, &st) != 0 || (st.st_size == 0 && written % kLinesBeforeRotation != 0)) {
        state.SkipWithError("nothing was written");
    }
}

void plain(benchmark::State& state) {
    measure(state, plain_line);
}
void log(benchmark::State& state) {
    measure(state, log_line);
}

} // namespace

int main(int argc, char** argv) {
    std::string folder = "/tmp/vexprod-bench-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        return 1;
    }
    log_set_dir(folder.c_str());
    add_pair("log line", plain, log);
    const int status = run_benchmarks(argc, argv);
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return status;
}
