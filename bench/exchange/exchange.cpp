#include "exchange.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using moments = std::chrono::steady_clock;

constexpr size_t kRatePayloadSize = 64;
constexpr size_t kFewestCalls = 5;      // of large payloads, whatever the time
constexpr size_t kMostCalls = 1U << 20; // whose times are kept
constexpr size_t kMostCallers = 64;
constexpr int kWarmUpCalls = 50;

// The scratch folder, and the process that removes it.
std::string scratch;
pid_t scratch_owner = -1;

void remove_scratch() {
    if (getpid() == scratch_owner) {
        std::error_code ignored;
        std::filesystem::remove_all(scratch, ignored);
    }
}

uint64_t checksum(const char* bytes, size_t size) {
    std::array<uint64_t, 4> sums = {size, 0, 0, 0};
    for (; size >= sizeof(sums); size -= sizeof(sums), bytes += sizeof(sums)) {
        std::array<uint64_t, 4> words{};
        memcpy(words.data(), bytes, sizeof(words));
        for (size_t i = 0; i < sums.size(); ++i) {
            sums[i] += words[i];
        }
    }
    for (; size > 0; --size, ++bytes) {
        sums[0] += static_cast<unsigned char>(*bytes);
    }
    return sums[0] ^ sums[1] * 3 ^ sums[2] * 5 ^ sums[3] * 7;
}

// One caller: its payload, its connection if that stays, and the time of each call.
class caller {
public:
    caller(const setting& how, size_t size) : how_(how), payload_(size, '\0') {
        for (size_t i = 0; i < size; ++i) {
            payload_[i] = static_cast<char>(i * 131 + (i >> 12));
        }
        if (how_.persistent) {
            connection_ = open_connection(how_);
        }
    }

    moments::duration call() {
        const auto begin = moments::now();
        if (!how_.persistent) {
            connection_ = open_connection(how_);
        }
        connection_->call(payload_, &reply_);
        if (expected_.empty()) {
            expected_ = connection_->expected(payload_);
        }
        if (!how_.persistent) {
            connection_.reset();
        }
        const auto took = moments::now() - begin;
        must(reply_ == expected_, "the reply is not the right one");
        reply_.clear();
        return took;
    }

private:
    const setting& how_;
    std::string payload_;
    std::string expected_;
    std::string reply_;
    std::unique_ptr<connection> connection_;
};

pid_t start_service(const setting& how) {
    std::array<int, 2> ready{};
    must(pipe2(ready.data(), O_CLOEXEC) == 0, "pipe");
    const pid_t pid = fork();
    must(pid >= 0, "fork");
    if (pid == 0) {
        end_with_parent();
        close(ready[0]);
        serve(how, [&] { must(write(ready[1], "", 1) == 1, "tell that the service is ready"); });
        _exit(1);
    }
    close(ready[1]);
    char byte = 0;
    must(read(ready[0], &byte, 1) == 1, "start the service");
    close(ready[0]);
    return pid;
}

void measure_latency(const setting& how, size_t size, milliseconds time) {
    caller one(how, size);
    const auto warm_at = moments::now() + time / 5;
    for (int i = 0; i < 3 || moments::now() < warm_at; ++i) {
        one.call();
    }
    std::vector<double> times_us;
    times_us.reserve(kMostCalls);
    const auto end_at = moments::now() + time;
    while ((moments::now() < end_at || times_us.size() < kFewestCalls) && times_us.size() < kMostCalls) {
        times_us.push_back(std::chrono::duration<double, std::micro>(one.call()).count());
    }
    const auto middle = times_us.begin() + static_cast<std::ptrdiff_t>(times_us.size() / 2);
    std::nth_element(times_us.begin(), middle, times_us.end());
    (void)std::printf("{\"value\":%.3f,\"calls\":%zu}\n", *middle, times_us.size());
}

// What the calling processes share.
struct counters {
    std::atomic<size_t> ready;
    std::atomic<bool> go;
    std::atomic<bool> stop;
    std::array<std::atomic<long>, kMostCallers> calls;

    [[nodiscard]] long sum() const {
        long all = 0;
        for (const auto& each : calls) {
            all += each.load(std::memory_order_relaxed);
        }
        return all;
    }
};

[[noreturn]] void call_until_stopped(const setting& how, counters* shared, std::atomic<long>* calls) {
    end_with_parent();
    caller self(how, kRatePayloadSize);
    for (int i = 0; i < kWarmUpCalls; ++i) {
        self.call();
    }
    shared->ready.fetch_add(1);
    while (!shared->go.load()) {
        std::this_thread::sleep_for(microseconds(500));
    }
    while (!shared->stop.load(std::memory_order_relaxed)) {
        self.call();
        calls->fetch_add(1, std::memory_order_relaxed);
    }
    _exit(0);
}

void measure_rate(const setting& how, size_t callers, milliseconds time) {
    must(callers > 0 && callers <= kMostCallers, "1 to 64 callers");
    void* memory = mmap(nullptr, sizeof(counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    must(memory != MAP_FAILED, "map the counters");
    auto* shared = new (memory) counters{};
    std::vector<pid_t> processes;
    for (size_t i = 0; i < callers; ++i) {
        processes.push_back(fork());
        must(processes.back() >= 0, "fork");
        if (processes.back() == 0) {
            call_until_stopped(how, shared, &shared->calls[i]);
        }
    }
    while (shared->ready.load() < callers) {
        must(waitpid(-1, nullptr, WNOHANG) == 0, "a process of the measurement ended");
        std::this_thread::sleep_for(milliseconds(1));
    }
    shared->go.store(true);
    std::this_thread::sleep_for(time / 5);
    const auto begin = moments::now();
    const long before = shared->sum();
    std::this_thread::sleep_for(time);
    const long calls = shared->sum() - before;
    const std::chrono::duration<double> took = moments::now() - begin;
    shared->stop.store(true);
    for (const pid_t each : processes) {
        (void)waitpid(each, nullptr, 0);
    }
    (void)std::printf("{\"value\":%.1f,\"calls\":%ld}\n", static_cast<double>(calls) / took.count(), calls);
}

[[noreturn]] void explain_usage(const char* program) {
    (void)std::fprintf(
        stderr, "usage: %s [--form FORM] [--persistent] latency SIZE_BYTES MS | rate CALLERS MS\nforms:", program);
    for (const std::string_view form : kForms) {
        (void)std::fprintf(stderr, " %.*s", static_cast<int>(form.size()), form.data());
    }
    (void)std::fputc('\n', stderr);
    _exit(2);
}

} // namespace

reply_text answer(const void* payload, size_t size) {
    std::array<char, kReplySize + 1> text{};
    const int length =
        std::snprintf(text.data(), text.size(), R"({"error_code":0,"sum":"%016llx","size":%zu)",
                      static_cast<unsigned long long>(checksum(static_cast<const char*>(payload), size)), size);
    reply_text reply{};
    reply.fill(' ');
    std::copy_n(text.begin(), length, reply.begin());
    reply.back() = '}';
    return reply;
}

std::string connection::expected(std::string_view payload) const {
    const reply_text text = answer(payload.data(), payload.size());
    return {text.begin(), text.end()};
}

void must(bool succeeded, const char* step) {
    if (!succeeded) {
        (void)std::fprintf(stderr, "failed: %s (errno %d, %s)\n", step, errno, std::strerror(errno));
        remove_scratch();
        _exit(1);
    }
}

void end_with_parent() {
    must(prctl(PR_SET_PDEATHSIG, SIGKILL) == 0, "end with the parent");
}

int main(int argc, char** argv) {
    setting how;
    how.form = kForms.front();
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--persistent") {
            how.persistent = true;
        } else if (word == "--form" && i + 1 < argc) {
            how.form = argv[++i];
        } else {
            words.emplace_back(word);
        }
    }
    const bool latency = !words.empty() && words[0] == "latency";
    if (words.size() != 3 || (!latency && words[0] != "rate") || std::ranges::count(kForms, how.form) == 0) {
        explain_usage(argv[0]);
    }
    how.folder = "/tmp/vexprod-bench-XXXXXX";
    must(mkdtemp(how.folder.data()) != nullptr, "make a folder");
    scratch = how.folder;
    scratch_owner = getpid();
    (void)signal(SIGPIPE, SIG_IGN);

    const pid_t service = start_service(how);
    const milliseconds time(std::strtol(words[2].c_str(), nullptr, 10));
    if (latency) {
        measure_latency(how, std::strtoull(words[1].c_str(), nullptr, 10), time);
    } else {
        measure_rate(how, std::strtoul(words[1].c_str(), nullptr, 10), time);
    }
    (void)std::fflush(stdout);
    (void)kill(service, SIGKILL);
    (void)waitpid(service, nullptr, 0);
    remove_scratch();
    _exit(0); // a peer's library may have threads that nothing ends
}
