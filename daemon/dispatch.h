// From a request to its handler: the entries that the two services call, in up to seven workers at once.
//
// The handler runs on a thread of its own, with the caller's extra descriptor as the process's standard output. KEPT:
// there is one standard output for all requests and no lock, so a later request takes it away from an earlier one.
// Replies never travel over it; it only carries what handlers print along the way.
#ifndef VEXPROD_DAEMON_DISPATCH_H
#define VEXPROD_DAEMON_DISPATCH_H

#include "kservice.h"

/// Serves one request of the main service or of the mail service. Takes over `io` and `fd` (-1 = none); both are gone
/// when it returns. An unknown command ends the caller's connection without a reply.
/// @return 0, always.
int service_handler(const char* command, ks_io* io, int fd);
int sendmail_service_handler(const char* command, ks_io* io, int fd);

/// Body of the handler thread.
/// @param arg  The request_thread that describes the request; borrowed.
void* pthread_callback_function(void* arg);

/// What the handler thread is given.
struct request_thread {
    int fd;
    ks_io* io;
    const char* command; ///< As it stands in the table.
    int (*handler)(ks_io* io, int fd);
};

#endif
