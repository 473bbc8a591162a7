// The project's round trip: a call through the framework's public interface, as C programs make it.
//
// Forms:
//   worker   the service's entry works on the consumer's thread
//   thread   on a thread of its own, made for the request and joined
#include "exchange.h"
#include "kservice.h"

#include <cstdlib>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::array<std::string_view, 2> kFrameworkForms = {"worker", "thread"};
constexpr size_t kWorkers = 2; // as the daemon's main service
constexpr unsigned kTimeoutS = 60;

void work(ks_io* io) {
    size_t size = 0;
    const void* request = ks_io_read(io, &size);
    const reply_text reply = answer(request, size);
    if (ks_io_alive(io) != 0) {
        ks_io_realloc(io, 0);
        (void)ks_io_write(io, reply.data(), reply.size());
        ks_reply(io);
    }
}

int on_worker(const char* /*command*/, ks_io* io, int /*fd*/) {
    work(io);
    ks_io_free(io);
    return 0;
}

int on_thread(const char* /*command*/, ks_io* io, int /*fd*/) {
    std::thread(work, io).join();
    ks_io_free(io);
    return 0;
}

std::string service_name(const setting& how) {
    return "@" + how.folder + "/framework";
}

class framework_connection : public connection {
public:
    explicit framework_connection(const setting& how) : name_(service_name(how)) {}

    void call(std::string_view payload, std::string* ret_reply) override {
        void* reply = nullptr;
        size_t size = 0;
        must(ks_ez_call(name_.c_str(), "test", payload.data(), payload.size(), &reply, &size, kTimeoutS, -1) == KS_OK,
             "call the service");
        ret_reply->assign(static_cast<const char*>(reply), size);
        free(reply);
    }

private:
    std::string name_;
};

} // namespace

const std::span<const std::string_view> kForms = kFrameworkForms;

void serve(const setting& how, const std::function<void()>& ready) {
    ks_start(ks_create(service_name(how).c_str(), KS_STANDALONE | KS_PTHREAD_MODE, kWorkers,
                       how.form == "thread" ? on_thread : on_worker));
    ready();
    for (;;) {
        (void)pause();
    }
}

std::unique_ptr<connection> open_connection(const setting& how) {
    return std::make_unique<framework_connection>(how);
}
