#include "dispatch.h"

#include "command_table.h"
#include "log.h"

#include <cstdio>
#include <cstring>
#include <cxxabi.h>
#include <exception>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

// "/dev/null", open for the life of the process: standard output can be pointed back at it even when no descriptor is
// left to reopen it. Opened with the library, before any request.
const int null_device = [] {
    const int opened = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (opened < 0 || opened > STDERR_FILENO) {
        return opened;
    }
    const int moved = fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(opened);
    return moved;
}();

const command_entry* find(std::span<const command_entry> table, const char* command) {
    for (const command_entry& entry : table) {
        if (strcmp(entry.command, command) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

void run_on_own_thread(request_thread* request) {
    pthread_t thread = {};
    if (pthread_create(&thread, nullptr, pthread_callback_function, request) == 0) {
        pthread_join(thread, nullptr);
    } // else the request ends without a reply
}

// KEPT: one for all requests, unguarded.
void set_standard_output(int fd) {
    dup2(fd, STDOUT_FILENO);
}

int dispatch(std::span<const command_entry> table, const char* command, ks_io* io, int fd) {
    const command_entry* entry = find(table, command);
    if (entry == nullptr || entry->handler == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        if (io != nullptr) {
            ks_io_free(io);
        }
        return 0;
    }
    request_thread request = {fd, io, entry->command, entry->handler};
    if (fd >= 0) {
        set_standard_output(fd);
        // Closes the descriptor and leaves "/dev/null" at its number for the second close() below. An empty number
        // could be taken by another request's descriptor meanwhile, and that one would be closed instead.
        dup3(null_device, fd, O_CLOEXEC);
    }
    run_on_own_thread(&request);
    (void)fflush(stdout); // what the handler printed belongs to its caller
    set_standard_output(null_device);
    if (fd >= 0) {
        close(fd); // KEPT: closed once more
    }
    if (io != nullptr) {
        ks_io_free(io);
    }
    return 0;
}

} // namespace

// The one place where what a handler lets escape is stopped: some conversions of the JSON library throw by design, and
// that request then ends without a reply.
// The undefined-behaviour sanitizer takes the forced unwind's reference, which refers to nothing, for a fault.
[[gnu::no_sanitize("null")]] void* pthread_callback_function(void* arg) {
    const auto* request = static_cast<const request_thread*>(arg);
    try {
        request->handler(request->io, request->fd);
    } catch (const abi::__forced_unwind&) {
        throw; // the handler ended its thread by pthread_exit()
    } catch (const std::exception& error) {
        dbg_printf2("[%s][%d] %s ended without a reply: %s", __func__, __LINE__, request->command, error.what());
    } catch (...) {
        dbg_printf2("[%s][%d] %s ended without a reply.", __func__, __LINE__, request->command);
    }
    return nullptr; // pthread_exit(3) does no more, and needs the compiler's shared library at run time
}

int service_handler(const char* command, ks_io* io, int fd) {
    return dispatch(main_commands(), command, io, fd);
}

int sendmail_service_handler(const char* command, ks_io* io, int fd) {
    return dispatch(mail_commands(), command, io, fd);
}
