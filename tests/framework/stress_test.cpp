// Many times over: start and stop, callers that vanish, descriptors that are no good. Afterwards the service answers
// and the process holds what it held before.
//
// KS_STRESS scales the counts in percent (default 100).
#include "framework_support.h"
#include "kservice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::descriptor;
using support::eventually;
using support::make_record;
using support::memory_file;
using support::raw_caller;
using support::service;

int scaled(int count) {
    const char* percent = getenv("KS_STRESS");
    return percent == nullptr ? count : std::max(1, count * (int)strtol(percent, nullptr, 10) / 100);
}

class stopwatch {
public:
    double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count(); }

private:
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// Numbers of descriptors and threads; compared, they say what was leaked.
struct holdings {
    size_t descriptors = support::open_descriptors().size();
    size_t threads = support::thread_count();
    bool operator==(const holdings&) const = default;
};

// What is held once the last answered requests have been freed as well: the same in fifty looks running.
holdings settled() {
    holdings last;
    int same = 0;
    (void)eventually([&] {
        const holdings now;
        same = now == last ? same + 1 : 0;
        last = now;
        return same == 50;
    });
    return last;
}

void expect_same(const holdings& before) {
    EXPECT_TRUE(eventually([&] { return holdings() == before; }))
        << holdings().descriptors << " descriptors, were " << before.descriptors << "; " << holdings().threads
        << " threads, were " << before.threads;
}

// ---- Start and stop

class StressStartStopTest : public testing::TestWithParam<unsigned> {};

TEST_P(StressStartStopTest, StoppedFromAnotherThreadAtRandomMoments) {
    const unsigned mode = GetParam();
    const int cycles = scaled(1000);
    std::mt19937 random(mode);
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    ks_handle* handle = nullptr;
    const auto cycle = [&](int i) {
        if (handle == nullptr) {
            handle = ks_create(name.c_str(), mode, 1 + random() % 3, support::echo);
        }
        std::atomic<bool> returned = false;
        const auto delay = std::chrono::microseconds(random() % 600);
        std::thread stopper([&] {
            const auto when = std::chrono::steady_clock::now() + delay;
            while (std::chrono::steady_clock::now() < when) {
                std::this_thread::yield();
            }
            do { // a stop that comes before the start does nothing
                ks_stop(handle);
            } while (!returned);
        });
        std::thread second;
        if (i % 3 == 0) {
            second = std::thread([&] { ks_stop(handle); });
        }
        ks_start(handle);
        returned = true;
        if (second.joinable()) {
            second.join();
        }
        stopper.join();
        ks_stop(handle);
        ASSERT_EQ(handle->worker, nullptr);
        if (i % 2 == 0) {
            ks_free(handle);
            handle = nullptr;
        }
        support::restore_stdin();
    };
    cycle(0);
    const holdings before;
    const stopwatch watch;
    for (int i = 1; i <= cycles; ++i) {
        cycle(i);
    }
    printf("mode %u: %d cycles in %.1f s\n", mode, cycles, watch.seconds());
    if (handle != nullptr) {
        ks_free(handle);
    }
    expect_same(before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
}

struct tally {
    std::atomic<bool> done = false;
    std::atomic<int> answered = 0;
    std::atomic<int> wrong = 0;
};

// The same with callers at the door all the time. They are processes of their own: ks_stop() closes descriptor 0 of
// this one, whatever it is by then.
TEST_P(StressStartStopTest, StoppedWhileCalled) {
    const unsigned mode = GetParam();
    const int cycles = scaled(100);
    const support::temp_dir dir;
    const std::string name = "@" + dir.file("s");
    const support::shared<tally> seen;
    std::vector<pid_t> callers;
    for (int i = 0; i < 3; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            while (!seen->done) {
                std::string reply;
                const unsigned code = support::call(name.c_str(), "c", "t", &reply);
                seen->wrong += code == 0 ? reply != "c|t|none" : code != 2 && code != 3 && code != 5;
                seen->answered += code == 0;
            }
            _exit(0);
        }
        callers.push_back(child);
    }
    std::mt19937 random(mode);
    for (int i = 0; i < cycles; ++i) {
        ks_handle* handle = ks_create(name.c_str(), mode, 2, support::echo);
        std::thread runner([&] { ks_start(handle); });
        const int goal = seen->answered + (int)(random() % 5);
        EXPECT_TRUE(eventually([&] { return seen->answered >= goal && access(dir.file("s").c_str(), F_OK) == 0; }));
        ks_stop(handle);
        runner.join();
        ks_free(handle);
        support::restore_stdin();
    }
    seen->done = true;
    for (const pid_t caller : callers) {
        EXPECT_EQ(waitpid(caller, nullptr, 0), caller);
    }
    EXPECT_EQ(seen->wrong, 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

INSTANTIATE_TEST_SUITE_P(Modes, StressStartStopTest, testing::Values(2U, 3U, 4U, 5U));

// ---- Callers

// Answers "<bytes>", or with the command "holdings" what this process holds.
int serve(const char* command, ks_io* io, int fd) {
    if (fd >= 0) {
        close(fd);
    }
    if (std::string(command) == "holdings") {
        const holdings now;
        support::answer(io, std::to_string(now.descriptors) + "/" + std::to_string(now.threads));
        return 0;
    }
    if (std::string(command) == "pid") {
        support::answer(io, std::to_string(getpid()));
        return 0;
    }
    size_t size = 0;
    (void)ks_io_read(io, &size);
    const std::string text = support::text_of(io);
    if (ks_io_alive(io) != 0) {
        ks_io_realloc(io, 3); // and once more in answer()
    }
    support::answer(io, "got " + std::to_string(text.size()));
    return 0;
}

// One caller that goes away at a random step, or stays to the end.
void vanish_somewhere(const std::string& path, std::mt19937& random) {
    raw_caller caller(path);
    if (!caller.connected()) {
        return;
    }
    const descriptor file = memory_file(std::string(random() % 100, 't'));
    const std::vector<std::function<bool()>> steps = {
        [&] { return true; },
        [&] { return random() % 4 != 0 || caller.send_bytes("early", 5); },
        [&] { return caller.receive(std::chrono::seconds(60)).has_value(); },
        [&] { return random() % 8 != 0 || caller.send_bytes("half", 4); },
        [&] { return caller.send(make_record(8, (unsigned char)(random() % 2), "command")); },
        [&] { return caller.send_fds(std::vector<int>(random() % 4, file.get())); },
        [&] { return random() % 2 != 0 || caller.send_fds({file.get()}); },
        [&] { return random() % 4 != 0 || ftruncate(file.get(), (off_t)(random() % 5000)) == 0; },
    };
    const size_t last = random() % (steps.size() + 1);
    for (size_t i = 0; i < last; ++i) {
        if (!steps[i]()) {
            return;
        }
    }
    if (random() % 4 == 0) {
        caller.shut_write();
    }
}

class StressCallersTest : public testing::TestWithParam<unsigned> {};

void call_and_stay(const char* name, int times) {
    for (int i = 0; i < times; ++i) {
        std::string reply;
        ASSERT_EQ(support::call(name, "c", "12345", &reply), 0U);
        ASSERT_EQ(reply, "got 5");
    }
}

// What each process consumer holds by its own account. Threads hold what this process does, see expect_same().
std::vector<std::string> holdings_of_consumers(const char* name, unsigned mode, size_t consumers) {
    std::vector<std::string> all;
    for (size_t i = 0; (mode & 2) != 0 && i < consumers; ++i) {
        std::string reply;
        EXPECT_EQ(support::call(name, "holdings", "", &reply), 0U);
        all.push_back(reply);
    }
    std::sort(all.begin(), all.end());
    return all;
}

TEST_P(StressCallersTest, TenThousandThatVanishAtRandomSteps) {
    constexpr int kProcesses = 8;
    const int each = scaled(10000) / kProcesses;
    const support::temp_dir dir;
    const std::string path = dir.file("s");
    const support::gate up;
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) { // before there are threads
        const pid_t child = fork();
        if (child == 0) {
            up.pass();
            std::mt19937 random((unsigned)i);
            for (int n = 0; n < each; ++n) {
                vanish_somewhere(path, random);
            }
            _exit(0);
        }
        children.push_back(child);
    }
    const service one("@" + path, GetParam(), 4, serve);
    call_and_stay(one.name(), 8);
    const auto consumers = holdings_of_consumers(one.name(), GetParam(), 4);
    const holdings before = settled();
    const stopwatch watch;
    up.open(kProcesses);
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    call_and_stay(one.name(), 8);
    printf("mode %u: %d vanishing callers in %.1f s\n", GetParam(), each * kProcesses, watch.seconds());
    expect_same(before);
    EXPECT_TRUE(eventually([&] { return holdings_of_consumers(one.name(), GetParam(), 4) == consumers; }));
}

struct kind {
    const char* what;
    std::function<descriptor()> make;
};

descriptor sealed(int seal) {
    descriptor file = memory_file("text");
    EXPECT_EQ(fcntl(file.get(), F_ADD_SEALS, seal), 0);
    return file;
}

descriptor one_end(int (*make)(int*), int which) {
    int ends[2];
    EXPECT_EQ(make(ends), 0);
    close(ends[1 - which]);
    return descriptor(ends[which]);
}

int socket_pair(int* ends) {
    return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
}

// What a caller may hand over that is no memory file, each a thousand times, as the file and as one too many.
TEST_P(StressCallersTest, EachBadDescriptorAThousandTimes) {
    const support::temp_dir dir;
    const std::string plain = dir.file("plain");
    const descriptor made(open(plain.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    const auto opened = [&plain](int flags) {
        return [&plain, flags] { return descriptor(open(plain.c_str(), flags | O_CLOEXEC)); };
    };
    const std::vector<kind> kinds = {
        {"pipe, reading", [] { return one_end(pipe, 0); }},
        {"pipe, writing", [] { return one_end(pipe, 1); }},
        {"socket", [] { return one_end(socket_pair, 0); }},
        {"read-only", opened(O_RDONLY)},
        {"write-only", opened(O_WRONLY)},
        {"path-only", opened(O_PATH)},
        {"sealed against writing", [] { return sealed(F_SEAL_WRITE); }},
        {"sealed against future writing", [] { return sealed(F_SEAL_FUTURE_WRITE); }},
        {"sealed against shrinking", [] { return sealed(F_SEAL_SHRINK); }},
        {"sealed against growing", [] { return sealed(F_SEAL_GROW); }},
        {"null device", [] { return descriptor(open("/dev/null", O_RDWR | O_CLOEXEC)); }},
        {"directory", [&dir] { return descriptor(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }},
        {"huge and sparse",
         [] {
             descriptor file = memory_file("text");
             EXPECT_EQ(ftruncate(file.get(), (off_t)1 << 62), 0);
             return file;
         }},
    };
    const int times = scaled(1000);
    const service one(GetParam(), 2, serve);
    call_and_stay(one.name(), 4);
    const auto consumers = holdings_of_consumers(one.name(), GetParam(), 2);
    const holdings before = settled();
    const stopwatch watch;
    for (const auto& each : kinds) {
        for (int i = 0; i < times; ++i) {
            const raw_caller caller(one.path());
            const descriptor file = each.make();
            ASSERT_TRUE(caller.invited()) << each.what << " " << i;
            ASSERT_TRUE(caller.send(make_record(8, 1, "c")));
            ASSERT_TRUE(caller.send_fds({file.get(), made.get()}));
            (void)caller.send_fds({file.get(), file.get(), made.get()}); // may be dropped already
            ASSERT_TRUE(caller.hung_up()) << each.what << " " << i;
        }
    }
    call_and_stay(one.name(), 4);
    printf("mode %u: %zu bad descriptors in %.1f s\n", GetParam(), kinds.size() * (size_t)times, watch.seconds());
    expect_same(before);
    EXPECT_TRUE(eventually([&] { return holdings_of_consumers(one.name(), GetParam(), 2) == consumers; }));
}

// The file changes under the service's hands, at whatever step that may be.
TEST_P(StressCallersTest, FilesThatShrinkAndGrowDuringTheRequest) {
    const service one(GetParam(), 2, serve);
    call_and_stay(one.name(), 4);
    const auto consumers = holdings_of_consumers(one.name(), GetParam(), 2);
    const holdings before = settled();
    const stopwatch watch;
    std::mt19937 random(1);
    const off_t sizes[] = {0, 1, 4096, 10000, (off_t)1 << 62};
    const int times = scaled(2000);
    for (int i = 0; i < times; ++i) {
        const raw_caller caller(one.path());
        const descriptor file = memory_file(std::string(5000, 't'));
        ASSERT_TRUE(caller.invited());
        ASSERT_TRUE(caller.send(make_record(8, 0, "c")) && caller.send_fds({file.get()}));
        for (unsigned n = random() % 8; n > 0; --n) {
            ASSERT_EQ(ftruncate(file.get(), sizes[random() % 5]), 0);
        }
        if (random() % 2 != 0) {
            (void)caller.receive();
        }
    }
    call_and_stay(one.name(), 4);
    printf("mode %u: %d changing files in %.1f s\n", GetParam(), times, watch.seconds());
    expect_same(before);
    EXPECT_TRUE(eventually([&] { return holdings_of_consumers(one.name(), GetParam(), 2) == consumers; }));
}

// Command and request of random bytes, and random bytes where directives belong.
TEST_P(StressCallersTest, BadTextAThousandTimes) {
    const service one(GetParam(), 2, serve);
    call_and_stay(one.name(), 4);
    const auto consumers = holdings_of_consumers(one.name(), GetParam(), 2);
    const holdings before = settled();
    std::mt19937 random(2);
    const auto junk = [&random](size_t size) {
        std::string text(size, '\0');
        for (char& each : text) {
            each = (char)random();
        }
        return text;
    };
    for (int i = scaled(1000); i > 0; --i) {
        const std::string text = junk(random() % 9000);
        const descriptor file = memory_file(text);
        const raw_caller caller(one.path());
        ASSERT_TRUE(caller.invited());
        ASSERT_TRUE(caller.request(junk(257), file.get()));
        char reply[32] = {};
        ASSERT_GT(pread(file.get(), reply, sizeof(reply) - 1, 0), 0);
        ASSERT_EQ(std::string(reply), "got " + std::to_string(text.size()));

        const raw_caller other(one.path());
        ASSERT_TRUE(other.invited());
        std::string words = junk(1 + random() % 600);
        words[0] = words[0] == 8 ? '9' : words[0];
        (void)other.send_bytes(words.data(), words.size());
        ASSERT_TRUE(other.hung_up());
    }
    call_and_stay(one.name(), 4);
    expect_same(before);
    EXPECT_TRUE(eventually([&] { return holdings_of_consumers(one.name(), GetParam(), 2) == consumers; }));
}

INSTANTIATE_TEST_SUITE_P(WorkerKinds, StressCallersTest, testing::Values(3U, 5U));

// ---- Dying consumers

TEST(StressRestartTest, ConsumersKilledWhileCalled) {
    const int times = scaled(200);
    const service one(3, 3, serve);
    call_and_stay(one.name(), 3);
    const holdings before = settled();
    const int saved = fcntl(2, F_DUPFD_CLOEXEC, 300);
    const descriptor silence(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(silence.get(), 2);
    for (int i = 0; i < times; ++i) {
        std::string reply;
        ASSERT_EQ(support::call(one.name(), "pid", "", &reply), 0U);
        const pid_t victim = (pid_t)strtol(reply.c_str(), nullptr, 10);
        ASSERT_GT(victim, 1) << "anything less would be a whole group of processes";
        ASSERT_EQ(kill(victim, SIGKILL), 0);
        siginfo_t info = {};
        ASSERT_EQ(waitid(P_PID, (id_t)victim, &info, WEXITED | WNOWAIT), 0); // leaves the status to the producer
        call_and_stay(one.name(), 3);
        ASSERT_EQ(kill(victim, 0), -1) << "reaped, and another one serves";
    }
    dup2(saved, 2);
    close(saved);
    EXPECT_TRUE(eventually([&] { return support::open_descriptors().size() == before.descriptors + 1; }))
        << "the one that silences";
}

} // namespace
