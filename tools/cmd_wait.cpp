// ksctl wait: until a service accepts connections.
#include "ksctl.h"
#include "service_socket.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace ksctl {

namespace {

using std::chrono::steady_clock;

constexpr double kLongestTimeoutS = 1e6;

struct wait_options {
    std::string service;
    double timeout_s = 30;
};

// The socket appears before anybody listens on it, and its directory may not be there yet: looking again is simpler
// than being told, and costs one system call each time.
int wait_for(const wait_options& options) {
    constexpr std::chrono::milliseconds kInterval(20);
    if (!check_service_name(options.service)) {
        return kBadArgument;
    }
    const std::string path = service_path(options.service);
    const auto allowed = std::chrono::duration<double>(options.timeout_s);
    const auto begin = steady_clock::now();
    while (probe(path) != presence::up) {
        const int error = errno;
        const auto left = allowed - (steady_clock::now() - begin);
        if (left.count() <= 0) {
            const std::string name = full_service_name(options.service);
            return fail(kTimeout, "time-out: %s (%s) accepted no connection within %g s: %s", name.c_str(),
                        path.c_str(), options.timeout_s, why_absent(options.service, error).c_str());
        }
        std::this_thread::sleep_for(std::min<std::chrono::duration<double>>(left, kInterval));
    }
    return kSuccess;
}

declaration declare() {
    auto options = std::make_shared<wait_options>();
    return {{{"SERVICE", &options->service, "The service's name"},
             {"--timeout", &options->timeout_s, "Seconds to wait, 0 = look once", "S", limits{0, kLongestTimeoutS}}},
            [options] { return wait_for(*options); }};
}

} // namespace

const command cmd_wait = {"wait", "Wait until a service accepts connections", "",
                          "ksctl wait main --timeout 10 && ksctl list", declare};

} // namespace ksctl
