// What callers that wait cost the others. A service with one worker, in a process of its own:
//
//     bench_waiting call WAITING MS       one call while WAITING others are always in front of it in the list:
//                                         microseconds between two replies, caller's part included
//     bench_waiting accept WAITING MS     taking in one more caller while WAITING (at most 990) to WAITING + 9 wait:
//                                         microseconds of the service's processor time
//
// Prints {"value":...,"calls":...} on one line.
#include "descriptor_limit.h"
#include "kservice.h"
#include "scoped.h"
#include "unique_fd.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using std::chrono::milliseconds;
using moments = std::chrono::steady_clock;

constexpr unsigned kTimeoutMs = 60000;
constexpr size_t kAtOnce = 10; // callers of one look at the processor's clock

[[noreturn]] void fail(const char* step) {
    (void)std::fprintf(stderr, "failed: %s\n", step);
    _exit(1);
}

int serve(const char* /*command*/, ks_io* io, int /*fd*/) {
    ks_io_realloc(io, 0);
    (void)ks_io_printf(io, "pong");
    ks_reply(io);
    ks_io_free(io);
    return 0;
}

pid_t start_service(const std::string& path) {
    std::array<int, 2> ready{};
    if (pipe2(ready.data(), O_CLOEXEC) != 0) {
        fail("pipe");
    }
    const pid_t pid = fork();
    if (pid == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        ks_start(ks_create(("@" + path).c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, serve));
        (void)!write(ready[1], "", 1);
        for (;;) {
            (void)pause();
        }
    }
    close(ready[1]);
    char byte = 0;
    if (pid < 0 || read(ready[0], &byte, 1) != 1) {
        fail("start the service");
    }
    close(ready[0]);
    return pid;
}

// All callers are requests of one set, and each that has its reply calls again at once: one is served, the others wait.
void measure_calls(const std::string& path, size_t waiting, milliseconds time) {
    const std::string name = "@" + path;
    ks_epoll* set = ks_epoll_create();
    const auto call = [&](ks_io* io) {
        if (ks_epoll_call(set, name.c_str(), "ping", io, -1) != KS_OK) {
            fail("call");
        }
    };
    const auto await_reply = [&]() -> ks_io* {
        for (;;) {
            unsigned code = KS_OK;
            ks_io* io = ks_epoll_perform(set, kTimeoutMs, &code);
            if (code != KS_OK) {
                fail("wait for a reply");
            }
            if (io != nullptr) {
                return io;
            }
        }
    };
    std::vector<unique_io> callers(waiting + 1);
    for (unique_io& each : callers) {
        each.reset(ks_io_create());
        call(each.get());
    }
    for (size_t i = 0; i < callers.size(); ++i) { // each once, so that all have their files
        call(await_reply());
    }
    long calls = 0;
    const auto begin = moments::now();
    while (moments::now() < begin + time) {
        call(await_reply());
        ++calls;
    }
    const std::chrono::duration<double, std::micro> took = moments::now() - begin;
    (void)std::printf("{\"value\":%.3f,\"calls\":%ld}\n", took.count() / static_cast<double>(calls), calls);
}

// ---- Accepting ----

double processor_time_us(pid_t pid) {
    clockid_t clock = 0;
    timespec now = {};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &now) != 0) {
        fail("read the service's clock");
    }
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) * 1e-3;
}

size_t open_descriptors(pid_t pid) {
    const unique_dir folder(opendir(("/proc/" + std::to_string(pid) + "/fd").c_str()));
    size_t count = 0;
    while (folder && readdir(folder.get()) != nullptr) {
        ++count;
    }
    return count;
}

void await_descriptors(pid_t pid, size_t count) {
    const auto give_up_at = moments::now() + milliseconds(kTimeoutMs);
    while (open_descriptors(pid) != count) {
        if (moments::now() > give_up_at) {
            fail("be accepted");
        }
        std::this_thread::sleep_for(milliseconds(1));
    }
}

unique_fd connected_to(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    unique_fd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fail("connect");
    }
    return made;
}

// Nobody says a word: the first caller is invited and holds the worker, for longer than this takes, and the others
// wait. The service has one descriptor for each.
void measure_accepting(const std::string& path, pid_t service, size_t waiting, milliseconds time) {
    const size_t before = open_descriptors(service);
    std::vector<unique_fd> callers;
    const auto add = [&](size_t count) {
        for (size_t i = 0; i < count; ++i) {
            callers.push_back(connected_to(path));
        }
        await_descriptors(service, before + callers.size());
    };
    add(1 + waiting);
    long accepted = 0;
    double took_us = 0;
    const auto end_at = moments::now() + time;
    while (accepted == 0 || moments::now() < end_at) {
        const double begin_us = processor_time_us(service);
        add(kAtOnce);
        took_us += processor_time_us(service) - begin_us;
        accepted += kAtOnce;
        callers.resize(1 + waiting);
        await_descriptors(service, before + callers.size());
    }
    (void)std::printf("{\"value\":%.3f,\"calls\":%ld}\n", took_us / static_cast<double>(accepted), accepted);
}

} // namespace

int main(int argc, char** argv) {
    const bool calls = argc == 4 && strcmp(argv[1], "call") == 0;
    if (argc != 4 || (!calls && strcmp(argv[1], "accept") != 0)) {
        (void)std::fprintf(stderr, "usage: %s call WAITING MS | accept WAITING MS\n", argv[0]);
        return 2;
    }
    (void)raise_descriptor_limit();
    std::string folder = "/tmp/vexprod-bench-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        fail("make a folder");
    }
    const std::string path = folder + "/waiting";
    const pid_t service = start_service(path);
    const size_t waiting = std::strtoul(argv[2], nullptr, 10);
    const milliseconds time(std::strtol(argv[3], nullptr, 10));
    if (calls) {
        measure_calls(path, waiting, time);
    } else {
        measure_accepting(path, service, waiting, time);
    }
    (void)kill(service, SIGKILL);
    (void)waitpid(service, nullptr, 0);
    (void)unlink(path.c_str());
    (void)rmdir(folder.c_str());
    return 0;
}
