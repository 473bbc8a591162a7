// What a producer hears: callers that connect, speak, pause and vanish in any order, and consumers' reports that mean
// nothing to it. Afterwards an honest caller gets its answer, and every descriptor has been closed.
//
// Script: two bytes a step, what and which caller; a caller speaks as conversation.h has it.
#include "conversation.h"
#include "kservice.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr const char* kPath = "/tmp/fuzz-producer.sock";
constexpr std::size_t kWorkers = 2;

int answer(const char* command, ks_io* io, int fd) {
    if (ks_io_alive(io) != 0) {
        ks_io_realloc(io, 0);
        (void)ks_io_printf(io, "%s", command);
        ks_reply(io);
    }
    unique_fd(fd).reset();
    ks_io_free(io);
    return 0;
}

struct service {
    service()
        : handle(ks_create((std::string("@") + kPath).c_str(), KS_STANDALONE | KS_PTHREAD_MODE, kWorkers, answer)) {
        ks_start(handle);
        call(0);
        // The table is the producer's: the kernel reads it for us, so that the thread sanitizer need not know.
        const unique_fd memory(open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
        const ks_worker* table = __atomic_load_n(&handle->worker, __ATOMIC_ACQUIRE);
        ks_worker first = {};
        (void)!pread(memory.get(), &first, sizeof(first), static_cast<off_t>(reinterpret_cast<std::uintptr_t>(table)));
        link = first.sockfd[0];
    }

    // An honest caller.
    void call(std::uint64_t number) const {
        const std::string nonce = "nonce " + std::to_string(number);
        void* reply = nullptr;
        std::size_t size = 0;
        const unsigned code = ks_ez_call(handle->name, nonce.c_str(), "", 0, &reply, &size, 60, -1);
        require(code == KS_OK, "an honest caller is served");
        require(nonce == std::string_view(static_cast<const char*>(reply), size), "its answer is its own");
        std::free(reply);
    }

    // What the first consumer might say, but for what would be true: its number, and numbers that are in transit.
    void report(std::uint8_t type) const {
        constexpr std::uint64_t kNobodys = 1U << 30U;
        directive message = {};
        message.type = type;
        std::memcpy(message.data, &kNobodys, sizeof(kNobodys));
        (void)send(link, &message, sizeof(message), MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    ks_handle* handle;
    int link = -1;
};

void connect_anew(unique_fd& caller) {
    caller.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kPath);
    (void)connect(caller.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)); // or the backlog is full
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const service served; // for as long as the process lives
    static std::uint64_t number = 0;
    static std::size_t before = [] {
        served.call(++number); // the other worker's turn: it is at work, too
        return open_descriptors();
    }();
    {
        script from(data, size);
        std::array<unique_fd, 8> callers;
        while (!from.at_end()) {
            const unsigned what = from.byte();
            const std::uint8_t which = from.byte();
            unique_fd& caller = callers[which % callers.size()];
            switch (what % 8) {
            case 0:
                connect_anew(caller);
                break;
            case 1:
            case 2:
                say(caller.get(), from);
                break;
            case 3:
                (void)shutdown(caller.get(), SHUT_WR);
                break;
            case 4:
                caller.reset();
                break;
            case 5:
                ks_pause(served.handle);
                break;
            case 6:
                ks_resume(served.handle);
                break;
            default:
                served.report(which);
                break;
            }
        }
    }
    ks_resume(served.handle);
    served.call(++number);
    before = require_open_descriptors(before);
    return 0;
}
