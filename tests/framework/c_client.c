/* The public header and the shared library as a C program uses them: makes a service, calls it, exits with 0. */
#include "kservice.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define IN_ORDER(record, first, second)                                                                                \
    _Static_assert(offsetof(record, first) < offsetof(record, second), #first " stands before " #second)

_Static_assert(sizeof(directive) == 259, "directive");
_Static_assert(offsetof(directive, type) == 0, "type");
_Static_assert(offsetof(directive, flags) == 1, "flags");
_Static_assert(offsetof(directive, data) == 2, "data");

_Static_assert(offsetof(ks_io, magic) == 0, "magic");
_Static_assert(offsetof(ks_io, memfd) == 4, "memfd");
_Static_assert(offsetof(ks_io, sockfd) == 8, "sockfd");
_Static_assert(offsetof(ks_io, passfd) == 12, "passfd");
_Static_assert(offsetof(ks_io, command) == 16, "command");
_Static_assert(sizeof(((ks_io*)0)->command) == 257, "command");
IN_ORDER(ks_io, command, userdata);
IN_ORDER(ks_io, userdata, shared_data);
IN_ORDER(ks_io, shared_data, shared_size);
IN_ORDER(ks_io, shared_size, cred);
IN_ORDER(ks_cred, pid, uid);
IN_ORDER(ks_cred, uid, gid);

_Static_assert(offsetof(ks_handle, magic) == 0, "magic");
_Static_assert(offsetof(ks_handle, paused) == 4, "paused");
_Static_assert(offsetof(ks_handle, stopping) == 5, "stopping");
_Static_assert(offsetof(ks_handle, sockfile) == 6, "sockfile");
_Static_assert(offsetof(ks_handle, name) == 71, "name");
_Static_assert(offsetof(ks_handle, mode) == 136, "mode");
IN_ORDER(ks_handle, mode, service_size);
IN_ORDER(ks_handle, service_size, exec);
IN_ORDER(ks_handle, exec, init);
IN_ORDER(ks_handle, init, init_argument);
IN_ORDER(ks_handle, init_argument, fini);
IN_ORDER(ks_handle, fini, fini_argument);
IN_ORDER(ks_handle, fini_argument, worker);

_Static_assert(offsetof(ks_worker, idle) == 0, "idle");
_Static_assert(offsetof(ks_worker, pollfd) == 4, "pollfd");
_Static_assert(offsetof(ks_worker, sockfd) == 8, "sockfd");
IN_ORDER(ks_worker, sockfd, index);
IN_ORDER(ks_worker, index, id);
IN_ORDER(ks_worker, id, flags);
IN_ORDER(ks_worker, flags, exec);
IN_ORDER(ks_worker, exec, init);
IN_ORDER(ks_worker, init, init_argument);
IN_ORDER(ks_worker, init_argument, fini);
IN_ORDER(ks_worker, fini, fini_argument);
IN_ORDER(ks_worker, fini_argument, queue);
IN_ORDER(ks_queue, type, sockfd);

_Static_assert(offsetof(ks_epoll, magic) == 0, "magic");
_Static_assert(offsetof(ks_epoll, fd) == 4, "fd");

static int serve(const char* command, ks_io* io, int fd) {
    size_t size = 0;
    const void* text = ks_io_read(io, &size);
    char request[64] = {0};
    memcpy(request, text, size < sizeof(request) ? size : sizeof(request) - 1);
    if (fd >= 0) {
        (void)close(fd);
    }
    if (ks_io_alive(io)) {
        ks_io_realloc(io, 0);
        ks_io_printf(io, "%s:%s:%d", command, request, (int)ks_io_pid(io));
        ks_reply(io);
    }
    ks_io_free(io);
    return 0;
}

int main(void) {
    char directory[] = "/tmp/ks-XXXXXX";
    char name[64];
    char expected[64];
    void* reply = NULL;
    size_t size = 0;
    unsigned code = 0;
    ks_handle* service = NULL;

    if (mkdtemp(directory) == NULL) {
        return 2;
    }
    (void)snprintf(name, sizeof(name), "@%s/s", directory);
    service = ks_create(name, KS_STANDALONE | KS_PTHREAD_MODE, 2, serve);
    ks_start(service);
    code = ks_ez_call(name, "greet", "hello", 5, &reply, &size, 30, -1);
    (void)snprintf(expected, sizeof(expected), "greet:hello:%d", (int)getpid());
    if (code != KS_OK || size != strlen(expected) || memcmp(reply, expected, size) != 0) {
        (void)fprintf(stderr, "code %u, reply %.*s\n", code, (int)size, reply == NULL ? "" : (const char*)reply);
        return 1;
    }
    free(reply);
    ks_free(service);
    (void)rmdir(directory);
    (void)puts("served");
    return 0;
}
