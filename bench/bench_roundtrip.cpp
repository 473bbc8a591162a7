// A call through the framework beside a plain exchange that carries the same payload the same way.
//
// Both write the payload into a fresh memory file, and in both the service maps the file and looks at every byte. The
// service answers from its callback, without a thread of its own for each request.
#include "bench_main.h"
#include "kservice.h"
#include "plain_exchange.h"

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr unsigned kTimeoutS = 60;
constexpr size_t kWorkers = 2; // as the daemon's main service

int serve(const char* /*command*/, ks_io* io, int /*fd*/) {
    size_t size = 0;
    const void* request = ks_io_read(io, &size);
    benchmark::DoNotOptimize(add_up(request, size));
    ks_reply(io);
    ks_io_free(io);
    return 0;
}

// Both services, for the whole run.
class services {
public:
    services() : folder_(make_folder()), plain_(folder_ + "/plain"), name_("@" + folder_ + "/ks") {
        handle_ = ks_create(name_.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, kWorkers, serve);
        ks_start(handle_);
    }
    ~services() {
        ks_free(handle_);
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    services(const services&) = delete;
    services& operator=(const services&) = delete;

    [[nodiscard]] std::string plain_path() const { return folder_ + "/plain"; }
    [[nodiscard]] const std::string& name() const { return name_; }

private:
    static std::string make_folder() {
        std::string pattern = "/tmp/vexprod-bench-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            abort();
        }
        return pattern;
    }

    std::string folder_;
    plain_server plain_;
    std::string name_;
    ks_handle* handle_ = nullptr;
};

const services* both = nullptr;

void plain(benchmark::State& state, size_t size) {
    const std::string payload(size, 'x');
    const std::string path = both->plain_path();
    for (auto _ : state) {
        if (!plain_call(path, payload)) {
            state.SkipWithError("the exchange failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void call(benchmark::State& state, size_t size) {
    const std::string payload(size, 'x');
    const char* name = both->name().c_str();
    for (auto _ : state) {
        if (ks_ez_call(name, "test", payload.data(), payload.size(), nullptr, nullptr, kTimeoutS, -1) != KS_OK) {
            state.SkipWithError("the call failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void add(const std::string& label, size_t size, int callers) {
    const std::string name = "roundtrip " + label + " x" + std::to_string(callers);
    benchmark::RegisterBenchmark((name + ":baseline").c_str(), plain, size)
        ->Threads(callers)
        ->UseRealTime()
        ->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark((name + ":subject").c_str(), call, size)
        ->Threads(callers)
        ->UseRealTime()
        ->MeasureProcessCPUTime();
}

} // namespace

int main(int argc, char** argv) {
    constexpr size_t kKiB = 1024;
    constexpr size_t kMiB = 1024 * kKiB;
    for (const int callers : {1, 4, 16}) {
        add("64 B", 64, callers);
        add("4 KiB", 4 * kKiB, callers);
        add("1 MiB", kMiB, callers);
    }
    add("64 MiB", 64 * kMiB, 1);
    add("64 MiB", 64 * kMiB, 4); // sixteen would need 2 GiB and measure the memory of the machine
    const services running;
    both = &running;
    return run_benchmarks(argc, argv);
}
