// The framework where a call fails: a service and its caller, both in the process of the point.
#include "faults.h"
#include "framework_support.h"
#include "kservice.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::string_literals;

namespace {

constexpr const char* kName = "@/tmp/faults.sock";
constexpr unsigned kStandaloneThreads = KS_STANDALONE | KS_PTHREAD_MODE;
constexpr unsigned kStandaloneProcesses = KS_STANDALONE | KS_PROCESS_MODE;

const std::string small_request(100, 's');
const std::string large_request(100000, 'l'); // of more than one piece, and than is sent beside the hand-over

// Answers with what it was sent, unless some of it is missing.
int repeat(const char* command, ks_io* io, int fd) {
    static char copy[200000];
    const std::string_view expected = strcmp(command, "large") == 0 ? large_request : small_request;
    size_t size = 0;
    const void* data = ks_io_read(io, &size);
    if (data != nullptr) {
        memcpy(copy, data, size);
    }
    if (fd >= 0) {
        close(fd);
    }
    if (size == expected.size() && ks_io_alive(io) != 0) {
        ks_io_realloc(io, 0);
        if (ks_io_write(io, copy, size) == (ssize_t)size) {
            ks_reply(io);
        }
    }
    ks_io_free(io);
    return 0;
}

std::string name_of(unsigned code) {
    constexpr const char* kNames[] = {faults::kDone, "timeout",      "no service", "paused",
                                      "refused",     "disconnected", "busy",       "bad argument"};
    return kNames[code];
}

// One call, made where it may fail, and judged where nothing does.
struct one_call {
    unsigned code = KS_OK;
    void* reply = nullptr;
    size_t size = 0;

    void make(const std::string& request, int passfd) {
        const char* command = request.size() == small_request.size() ? "small" : "large";
        code = ks_ez_call(kName, command, request.data(), request.size(), &reply, &size, 5, passfd);
    }
    std::string judge(const std::string& request) {
        const std::string_view text(static_cast<const char*>(reply), reply == nullptr ? 0 : size);
        const bool right = code != KS_OK || text == request;
        std::string outcome = right ? name_of(code) : "a wrong reply of " + std::to_string(size) + " bytes";
        free(reply);
        *this = {};
        return outcome;
    }
};

void expect_calls_end_well(const char* name, unsigned mode, const std::string& request, int passfd) {
    ks_handle* service = nullptr;
    one_call call;
    faults::run({
        name,
        [&] { ks_start(service = ks_create(kName, mode, 1, repeat)); },
        nullptr,
        [&] { call.make(request, passfd); },
        [&] { return call.judge(request); },
        [&] { ks_free(service); },
        {{"disconnected"}, {"no service"}, {"timeout"}},
    });
}

TEST(FrameworkFaultsTest, CallOfAThread) {
    expect_calls_end_well("call-thread", kStandaloneThreads, small_request, STDERR_FILENO);
}

TEST(FrameworkFaultsTest, LargeCallOfAThread) {
    expect_calls_end_well("call-large", kStandaloneThreads, large_request, -1);
}

TEST(FrameworkFaultsTest, CallOfAProcess) {
    expect_calls_end_well("call-process", kStandaloneProcesses, small_request, STDERR_FILENO);
}

void expect_starts_end_well(const char* name, unsigned mode) {
    one_call call;
    faults::run({
        name,
        nullptr,
        nullptr,
        [&] {
            ks_handle* service = ks_create(kName, mode, 2, repeat);
            ks_start(service);
            call.make(small_request, -1);
            ks_free(service);
        },
        [&] {
            support::restore_stdin(); // ks_stop() has closed it
            return call.judge(small_request);
        },
        nullptr,
        {{"disconnected"}, {"no service"}, {"timeout"}},
    });
}

TEST(FrameworkFaultsTest, StartAndStopOfThreads) {
    expect_starts_end_well("start-threads", kStandaloneThreads);
}

TEST(FrameworkFaultsTest, StartAndStopOfProcesses) {
    expect_starts_end_well("start-processes", kStandaloneProcesses);
}

TEST(FrameworkFaultsTest, RestartOfAProcess) {
    ks_handle* service = nullptr;
    one_call call;
    faults::run({
        "restart-process",
        [&] { ks_start(service = ks_create(kName, kStandaloneProcesses, 1, repeat)); },
        [&] {
            // A worker that cannot listen to its producer ends the service.
            one_call probe;
            probe.make(small_request, -1);
            if (probe.judge(small_request) != faults::kDone) {
                ks_free(service);
                support::restore_stdin();
                ks_start(service = ks_create(kName, kStandaloneProcesses, 1, repeat));
            }
            const pid_t worker = support::entry_of(service, 0).id.pid;
            siginfo_t end = {};
            (void)kill(worker, SIGKILL);
            (void)waitid(P_PID, (id_t)worker, &end, WEXITED | WNOWAIT);
        },
        [&] { call.make(small_request, -1); },
        [&] { return call.judge(small_request); },
        [&] { ks_free(service); },
        {{"disconnected"}, {"no service"}, {"timeout"}},
    });
}

TEST(FrameworkFaultsTest, SetOfRequests) {
    ks_handle* service = nullptr;
    unsigned code = KS_OK;
    size_t size = 0;
    faults::run({
        "set",
        [&] { ks_start(service = ks_create(kName, kStandaloneThreads, 1, repeat)); },
        nullptr,
        [&] {
            ks_epoll* set = ks_epoll_create();
            ks_io* io = ks_io_create();
            size = 0;
            code = KS_DISCONNECTED;
            if (ks_io_write(io, small_request.data(), small_request.size()) == (ssize_t)small_request.size()) {
                code = ks_epoll_call(set, kName, "small", io, -1);
            }
            while (code == KS_OK && ks_epoll_perform(set, 5000, &code) == nullptr) {
            }
            if (code == KS_OK) {
                (void)ks_io_read(io, &size);
            } else {
                ks_epoll_cancel(set, io);
            }
            ks_io_free(io);
            ks_epoll_free(set);
        },
        [&]() -> std::string {
            return code == KS_OK && size != small_request.size() ? "a wrong reply" : name_of(code);
        },
        [&] { ks_free(service); },
        {{"disconnected"}, {"no service"}, {"timeout"}},
    });
}

// Each operation either does what it should or says that it did not.
TEST(FrameworkFaultsTest, MessageObject) {
    bool all = true;
    bool told = true;
    int pipe_ends[2] = {-1, -1};
    const std::string long_text(10000, 't');
    const auto expect = [&](bool done, bool failed) {
        all = all && done;
        told = told && (done || failed);
    };
    faults::run({
        "message",
        [&] { ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC | O_NONBLOCK), 0); },
        [&] {
            char rest[16];
            (void)!read(pipe_ends[0], rest, sizeof(rest));
            (void)!write(pipe_ends[1], "pipe", 4);
            all = told = true;
        },
        [&] {
            ks_io* io = ks_io_create();
            ssize_t count = ks_io_write(io, "text", 4);
            expect(count == 4, count == -1);
            count = ks_io_splice(io, pipe_ends[0], 4);
            expect(count == 4, count == -1);
            count = ks_io_printf(io, "%d", 1234);
            expect(count == 4, count == -1);
            count = ks_io_printf(io, "%s", long_text.c_str());
            expect(count == (ssize_t)long_text.size(), count == -1);
            const int copy = ks_io_dup(io);
            expect(copy >= 0, copy == -1);
            if (copy >= 0) {
                int same = ks_io_dup2(io, copy);
                expect(same == copy, same == -1);
                same = ks_io_dup3(io, copy, O_CLOEXEC);
                expect(same == copy, same == -1);
                close(copy);
            }
            if (FILE* stream = ks_io_fopen(io, "r")) {
                (void)fclose(stream);
            } else {
                expect(false, true);
            }
            ks_io_realloc(io, 4096);
            size_t size = 0;
            const void* data = ks_io_read(io, &size);
            expect(data != nullptr && size == 4096, false);
            size = ks_io_size(io);
            expect(size == 4096, size == 0);
            ks_io_free(io);
        },
        [&]() -> std::string { return all    ? faults::kDone
                                      : told ? "told"
                                             : "not told"; },
        nullptr,
        {{"told"}},
    });
}

TEST(FrameworkFaultsTest, ReopenedStream) {
    ssize_t written = 0;
    bool reopened = false;
    char text[16];
    faults::run({
        "freopen",
        nullptr,
        [] { ASSERT_NE(freopen("/dev/null", "re", stdin), nullptr); },
        [&] {
            ks_io* io = ks_io_create();
            written = ks_io_write(io, "text", 5);
            reopened = ks_io_freopen(io, "r", stdin) == stdin;
            text[0] = '\0';
            if (reopened) {
                (void)fgets(text, sizeof(text), stdin);
            }
            ks_io_free(io);
        },
        [&]() -> std::string {
            if (!reopened) {
                return fcntl(STDIN_FILENO, F_GETFD) == -1 ? "no stream" : "no stream, descriptor left";
            }
            return written == -1 && text[0] == '\0'  ? "nothing written"
                   : written == 5 && text == "text"s ? faults::kDone
                                                     : "a wrong text";
        },
        nullptr,
        {{"no stream", "freopen"}, {"nothing written", "write"}},
    });
}

// Whatever fails, the report is of the crash, and the status 1.
TEST(FrameworkFaultsTest, CrashReport) {
    siginfo_t end = {};
    faults::run({
        "crash-report",
        nullptr,
        [] { ASSERT_EQ(truncate("/dev/kmsg", 0), 0); },
        [&] {
            end = faults::run_in_child([] {
                ks_backtrace();
                (void)raise(SIGSEGV);
            });
        },
        [&]() -> std::string {
            const std::string log = read_file("/dev/kmsg");
            if (end.si_code != CLD_EXITED || end.si_status != 1 || log.find("Aborted") != std::string::npos) {
                return "ended by " + std::to_string(end.si_status) + " with " + log;
            }
            const bool starts = log.starts_with("Segmentation fault (pid ");
            const bool ends = log.ends_with("]\n") && log.find("\n 5. ") != std::string::npos;
            return log.empty() ? "no report" : starts && ends ? faults::kDone : "part of a report";
        },
        nullptr,
        {{"no report"}, {"part of a report", "write"}, {"part of a report", "pread"}},
    });
}

} // namespace
