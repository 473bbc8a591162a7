/* The public header as a C program has it from an installed tree: serves, calls itself, exits with 0. */
#include <kservice.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int serve(const char* command, ks_io* io, int fd) {
    (void)command;
    (void)fd;
    ks_io_realloc(io, 0);
    ks_io_printf(io, "pong");
    ks_reply(io);
    ks_io_free(io);
    return 0;
}

int main(int argc, char** argv) {
    void* reply = NULL;
    size_t size = 0;
    ks_handle* service = NULL;
    unsigned code = 0;
    if (argc != 2) {
        return 2;
    }
    service = ks_create(argv[1], KS_STANDALONE | KS_PTHREAD_MODE, 1, serve);
    ks_start(service);
    code = ks_ez_call(argv[1], "ping", NULL, 0, &reply, &size, 30, -1);
    ks_free(service);
    if (code != KS_OK || size != 4 || memcmp(reply, "pong", 4) != 0) {
        return 1;
    }
    free(reply);
    (void)puts("served");
    return 0;
}
