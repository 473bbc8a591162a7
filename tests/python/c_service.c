/* A service made with the C library, for the callers in other languages: c_service NAME [PROCESSES]
 *
 * "echo" answers with the request, "who" with the caller's pid, uid and gid, "print" writes "printed" to the extra
 * descriptor, "stamp" the worker's pid, and answers with the request; "hold" answers when the caller has gone, all
 * others give no reply. Says "ready" on standard output. The lines "pause" and "resume" on standard input are obeyed
 * and answered with "done"; its end is the service's. Its workers are two threads, or as many processes as it is told.
 */
#include "kservice.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int serve(const char* command, ks_io* io, int fd) {
    size_t size = 0;
    const void* text = ks_io_read(io, &size);
    char* request = malloc(size + 1);
    if (request == NULL) {
        abort();
    }
    if (size > 0) {
        memcpy(request, text, size);
    }
    while (strcmp(command, "hold") == 0 && ks_io_alive(io)) {
        (void)usleep(1000);
    }
    ks_io_realloc(io, 0);
    if (strcmp(command, "echo") == 0 || (strcmp(command, "stamp") == 0 && dprintf(fd, "%d", (int)getpid()) > 0)) {
        (void)ks_io_write(io, request, size);
        ks_reply(io);
    } else if (strcmp(command, "who") == 0) {
        ks_io_printf(io, "%d %u %u", (int)ks_io_pid(io), ks_io_uid(io), ks_io_gid(io));
        ks_reply(io);
    } else if (strcmp(command, "print") == 0 && write(fd, "printed", 7) == 7) {
        ks_reply(io);
    }
    if (fd >= 0) {
        close(fd);
    }
    free(request);
    ks_io_free(io);
    return 0;
}

int main(int argc, char** argv) {
    char line[16];
    ks_handle* service = NULL;
    if (argc != 2 && argc != 3) {
        return 2;
    }
    service = argc == 2 ? ks_create(argv[1], KS_STANDALONE | KS_PTHREAD_MODE, 2, serve)
                        : ks_create(argv[1], KS_STANDALONE | KS_PROCESS_MODE, strtoul(argv[2], NULL, 10), serve);
    ks_start(service);
    (void)puts("ready");
    (void)fflush(stdout);
    while (fgets(line, sizeof(line), stdin) != NULL) {
        if (strcmp(line, "pause\n") == 0) {
            ks_pause(service);
        } else {
            ks_resume(service);
        }
        (void)puts("done");
        (void)fflush(stdout);
    }
    ks_free(service);
    return 0;
}
