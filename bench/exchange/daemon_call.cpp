// The daemon's round trip: the "test" command of its main service, through the dispatch and on a handler thread. To be
// run in the simulated host, with the daemon's path in the variable VEXPROD_PROGRAM.
#include "exchange.h"
#include "kservice.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::array<std::string_view, 1> kDaemonForms = {"test"};
constexpr const char* kMainService = "VexHubServer-vexprod";
constexpr const char* kMailService = "VexHubServer_send_mail-vexprod";
constexpr unsigned kTimeoutS = 60;
constexpr useconds_t kStartPollUs = 10000;

bool ask(const char* service, std::string_view payload, std::string* ret_reply) {
    void* reply = nullptr;
    size_t size = 0;
    const unsigned code = ks_ez_call(service, "test", payload.data(), payload.size(), &reply, &size, kTimeoutS, -1);
    ret_reply->assign(static_cast<const char*>(reply), code == KS_OK ? size : 0);
    free(reply);
    return code == KS_OK;
}

class daemon_connection : public connection {
public:
    void call(std::string_view payload, std::string* ret_reply) override {
        must(ask(kMainService, payload, ret_reply), "call the daemon");
    }
    [[nodiscard]] std::string expected(std::string_view /*payload*/) const override {
        return "{\"handler\":\"test_handler\",\"service\":\"VexHubServer-vexprod\"}\n";
    }
};

} // namespace

const std::span<const std::string_view> kForms = kDaemonForms;

void serve(const setting& /*how*/, const std::function<void()>& ready) {
    must(access("/.hostsim", F_OK) == 0, "find the simulated host (run this through hostsim/enter)");
    const char* program = getenv("VEXPROD_PROGRAM");
    must(program != nullptr, "find VEXPROD_PROGRAM in the environment");
    const pid_t pid = fork();
    must(pid >= 0, "fork");
    if (pid == 0) {
        end_with_parent();
        const int null_device = open("/dev/null", O_RDWR);
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            must(dup2(null_device, stream) == stream, "redirect the daemon");
        }
        execl(program, program, nullptr);
        _exit(127);
    }
    std::string reply;
    while (!ask(kMainService, "", &reply) || !ask(kMailService, "", &reply)) {
        must(waitpid(pid, nullptr, WNOHANG) == 0, "start the daemon");
        (void)usleep(kStartPollUs);
    }
    ready();
    for (;;) {
        (void)pause();
    }
}

std::unique_ptr<connection> open_connection(const setting& /*how*/) {
    return std::make_unique<daemon_connection>();
}
