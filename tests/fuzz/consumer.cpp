// What a consumer worker hears: from the producer over its link, and from the callers that it is handed. All is said
// before the worker begins, and every connection is at its end then, so the worker runs on this thread and always ends.
//
// Script: "what" bytes. 0 to 127: a caller is handed over as the producer does it; the byte's low three bits are the
// number of the caller's messages, which follow (see conversation.h). Others: a message on the link.
#include "conversation.h"
#include "internal.h"
#include "json_helpers.h"

#include <csignal>
#include <cstring>
#include <sys/socket.h>

namespace {

constexpr std::size_t kDirectiveSize = 259;

int callbacks = 0;

// Works on the request as its own letters say: a callback may call what it likes.
int serve(const char* command, ks_io* io, int fd) {
    ++callbacks;
    const std::size_t length = std::strlen(command);
    require(length < sizeof(io->command), "a command has at most 256 characters");
    require(fd == -1 || fd > STDERR_FILENO, "no stranger's descriptor is a standard stream");
    (void)request_text(io);
    for (const char* letter = command; *letter != '\0'; ++letter) {
        std::size_t size = 0;
        switch (*letter) {
        case 'r':
            if (auto* bytes = static_cast<volatile char*>(ks_io_read(io, &size))) {
                (void)bytes[0];
                (void)bytes[size - 1];
            }
            break;
        case 'a':
            ks_io_realloc(io, length * 100);
            break;
        case 'w':
            (void)ks_io_write(io, command, length);
            break;
        case 'p':
            (void)ks_io_printf(io, "%s", command);
            break;
        case 'd':
            unique_fd(ks_io_dup(io)).reset();
            break;
        default:
            break;
        }
    }
    if (ks_io_alive(io) != 0) {
        ks_io_realloc(io, 0);
        (void)ks_io_printf(io, "pong");
        ks_reply(io);
    }
    unique_fd(fd).reset();
    ks_io_free(io);
    return 0;
}

// What the consumer has told the producer: whole reports, as many "ready" as it has taken callers.
void check_reports(int link) {
    std::size_t ready = 0;
    for (;;) {
        directive report = {};
        const ssize_t got = recv(link, &report, sizeof(report), MSG_DONTWAIT | MSG_WAITALL);
        if (got <= 0) {
            break;
        }
        require(got == static_cast<ssize_t>(kDirectiveSize), "reports are whole");
        require(report.type == KS_DIRECTIVE_TRANSFER || report.type == KS_DIRECTIVE_READY,
                "reports are echoes or ready");
        ready += report.type == KS_DIRECTIVE_READY ? 1 : 0;
    }
    require(ready >= static_cast<std::size_t>(callbacks), "ready follows each callback");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    [[maybe_unused]] static const bool prepared = [] {
        (void)std::signal(SIGPIPE, SIG_IGN); // as ks_start() does
        (void)std::signal(SIGXFSZ, SIG_IGN);
        return true;
    }();
    const std::size_t before = open_descriptors();
    callbacks = 0;
    {
        script from(data, size);
        socket_pair link;
        std::vector<unique_fd> callers;
        while (!from.at_end()) {
            const unsigned what = from.byte();
            if (what > 127) {
                say(link.theirs.get(), from);
                continue;
            }
            socket_pair caller;
            for (unsigned messages = what & 7U; messages > 0; --messages) {
                say(caller.theirs.get(), from);
            }
            (void)shutdown(caller.theirs.get(), SHUT_WR);
            directive transfer = ks::make_directive(KS_DIRECTIVE_TRANSFER);
            const std::int32_t number = caller.ours.get();
            std::memcpy(transfer.data, &number, sizeof(number));
            send_message(link.theirs.get(), {reinterpret_cast<const char*>(&transfer), sizeof(transfer)});
            std::vector<unique_fd> one;
            one.push_back(std::move(caller.ours));
            send_message(link.theirs.get(), std::string_view("\0", 1), one);
            callers.push_back(std::move(caller.theirs));
        }
        (void)shutdown(link.theirs.get(), SHUT_WR);
        ks_worker worker = {};
        worker.sockfd[0] = link.ours.get();
        worker.sockfd[1] = link.theirs.get();
        worker.flags = KS_PTHREAD_MODE;
        worker.exec = serve;
        const std::size_t waiting = 0;
        ks::run_consumer(&worker, &waiting);
        require(worker.pollfd == -1, "the worker has closed its epoll");
        check_reports(link.theirs.get());
    }
    (void)require_open_descriptors(before);
    return 0;
}
