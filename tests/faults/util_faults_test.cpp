// The runner, the log and exec_cli where a call fails.
#include "exec_cli.h"
#include "faults.h"
#include "log.h"
#include "runner.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <new>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char* kCat = "/bin/cat";

// Those of temp_file.h, and files only. @return How many there were.
int remove_temporary_files() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        if (entry.is_regular_file() && entry.path().filename().string().starts_with("vexprod-")) {
            count += std::filesystem::remove(entry.path()) ? 1 : 0;
        }
    }
    return count;
}

class UtilFaultsTest : public testing::Test {
protected:
    test_folder folder_;
    const std::string in_ = folder_ / "in";
    const std::string out_ = folder_ / "out";
    const std::string err_ = folder_ / "err";
    const std::string trace_ = folder_ / "trace";
    const std::string text_ = "what the program reads and prints\n";
};

TEST_F(UtilFaultsTest, RunAndWait) {
    int status = 0;
    faults::run({
        "run",
        [&] { write_file(in_, text_); },
        [&] {
            for (const std::string& file : {out_, err_, trace_}) {
                (void)unlink(file.c_str());
            }
        },
        [&] {
            status = lyn_vexprod_corvo_exec_v2(in_.c_str(), out_.c_str(), err_.c_str(), trace_.c_str(), kCat, nullptr);
        },
        [&]() -> std::string {
            const std::string printed = read_file(out_);
            if (status == 0 && printed.empty()) {
                return "no child"; // KEPT: a success
            }
            if (status == 0 && printed == text_) {
                return faults::kDone;
            }
            return "status " + std::to_string(status) + (file_exists(out_) || file_exists(err_) ? ", files left" : "");
        },
        nullptr,
        {{"no child", "vfork"},
         {"status -1"},
         {"status -1, files left", "unlink"},
         {"status -1, files left", "waitpid"}, // the program ran
         {"status 32512, files left", "execve"},
         {"status 32512, files left", "dup2"}},
    });
}

TEST_F(UtilFaultsTest, RunWithAPipeToRead) {
    FILE* stream = nullptr;
    std::string output;
    bool threw = false;
    int status = 0;
    faults::run({
        "pipe-read",
        [&] { write_file(in_, text_); },
        nullptr,
        [&] {
            stream = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", kCat, in_.c_str(), nullptr);
            if (stream != nullptr) {
                try {
                    output = read_output(stream);
                } catch (const std::bad_alloc&) {
                    threw = true;
                }
                status = lyn_vexprod_corvo_pclose(stream);
            }
        },
        [&]() -> std::string {
            const std::string printed = std::exchange(output, {});
            if (stream == nullptr) {
                return "no stream";
            }
            if (std::exchange(threw, false)) {
                return "bad_alloc";
            }
            const std::string ended = status == 0 ? "" : ", status " + std::to_string(status);
            return printed == text_ ? faults::kDone + ended : printed.empty() ? "no output" + ended : printed + ended;
        },
        nullptr,
        {{"no stream"},
         {"bad_alloc", "malloc"},
         {"no output", "read"},
         {"no output", "ioctl"},
         {"done, status -1", "waitpid"},
         {"no output, status 32512", "execve"},
         {"no output, status 32512", "dup2"}},
    });
}

TEST_F(UtilFaultsTest, RunWithAPipeToWrite) {
    FILE* stream = nullptr;
    int status = 0;
    faults::run({
        "pipe-write",
        [] { (void)signal(SIGPIPE, SIG_IGN); }, // as the daemon does: the program may be gone before it has read
        [&] { (void)unlink(out_.c_str()); },
        [&] {
            stream = lyn_vexprod_corvo_popen_v2(nullptr, out_.c_str(), nullptr, "w", kCat, nullptr);
            if (stream != nullptr) {
                (void)fputs(text_.c_str(), stream);
                status = lyn_vexprod_corvo_pclose(stream);
            }
        },
        [&]() -> std::string {
            if (stream == nullptr) {
                return file_exists(out_) ? "no stream, files left" : "no stream";
            }
            const std::string ended = status == 0 ? "" : ", status " + std::to_string(status);
            return (read_file(out_) == text_ ? faults::kDone : "no output") + ended;
        },
        nullptr,
        {{"no stream"},
         {"no stream, files left", "vfork"}, // as documented
         {"no stream, files left", "unlink"},
         {"done, status -1", "waitpid"},
         {"no output", "malloc"}, // the stream's buffer
         {"no output, status 32512", "execve"},
         {"no output, status 32512", "dup2"}},
    });
}

TEST_F(UtilFaultsTest, LineOfTheLog) {
    int kept = 0;
    const std::string log = folder_ / kLogFileName;
    faults::run({
        "log",
        [&] { log_set_dir(folder_.path().c_str()); },
        [&] { (void)unlink(log.c_str()); },
        [&] {
            errno = EDOM;
            dbg_printf2("a %s", "line");
            kept = errno;
        },
        [&]() -> std::string {
            const std::string text = read_file(log);
            return kept != EDOM ? "errno changed" : text.ends_with(" line\n") ? faults::kDone : "lost " + text;
        },
        nullptr,
        {{"lost "}},
    });
}

TEST_F(UtilFaultsTest, RotationOfTheLog) {
    const std::string log = folder_ / kLogFileName;
    const std::string old = log + ".bak";
    faults::run({
        "log-rotation",
        [&] { log_set_dir(folder_.path().c_str()); },
        [&] {
            (void)unlink(old.c_str());
            write_file(log, "");
            ASSERT_EQ(truncate(log.c_str(), 0x80000), 0);
        },
        [] { dbg_printf2("a %s", "line"); },
        [&]() -> std::string {
            const std::string text = read_file(log);
            return std::string(file_exists(old) ? "" : "not rotated, ") +
                   (text.ends_with(" line\n") ? faults::kDone : "lost");
        },
        nullptr,
        {{"done"}, {"not rotated, done"}, {"lost"}, {"not rotated, lost"}},
    });
}

// What the daemon writes when it crashes.
TEST_F(UtilFaultsTest, StackInTheLog) {
    const std::string log = folder_ / kLogFileName;
    faults::run({
        "log-stack",
        [&] { log_set_dir(folder_.path().c_str()); },
        [&] { (void)unlink(log.c_str()); },
        [] { vexprod_debug_backtrace_dump(); },
        [&]() -> std::string {
            const std::string text = read_file(log);
            const bool frames = text.find(" [0x") != std::string::npos;
            const bool separator = text.find("]==========================\n") != std::string::npos;
            const bool program = text.ends_with(std::string("]") + program_invocation_name + "\n");
            return !separator || !program ? "lines lost" : frames ? faults::kDone : "no frames";
        },
        nullptr,
        {{"no frames", "malloc"}, {"no frames", "backtrace_symbols"}, {"lines lost", "write"}, {"lines lost", "open"}},
    });
}

TEST_F(UtilFaultsTest, ExecCli) {
    const std::string command = R"({"command":["/bin/echo","a long line of text that needs memory of its own"]})";
    std::string output;
    int status = 0;
    bool threw = false;
    faults::run({
        "exec_cli",
        nullptr,
        nullptr,
        [&] {
            try {
                status = exec_cli(command, output);
            } catch (const std::bad_alloc&) {
                threw = true;
            }
        },
        [&]() -> std::string {
            const std::string printed = std::exchange(output, {});
            if (std::exchange(threw, false)) {
                return "bad_alloc";
            }
            if (status != 0) {
                return std::to_string(status) + " " + printed;
            }
            const std::string left = remove_temporary_files() == 0 ? "" : ", file left";
            return (printed.ends_with("its own\n") ? faults::kDone : "no output" + printed) + left;
        },
        nullptr,
        {{"-2 malloc fail.", "malloc"},
         {"-1 Read command fail.", "malloc"}, // the parser's own: told like a text that it rejects
         {"done, file left", "unlink"},
         {"no output"}}, // what became of the program is not looked at
    });
}

} // namespace
