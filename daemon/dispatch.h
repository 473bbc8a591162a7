// From a request to its handler: the callbacks of the two services, run by up to seven workers at once.
//
// The handler runs on a thread of its own, with the caller's extra descriptor as the process's standard output. KEPT:
// there is one standard output for all requests and no lock, so a later request takes it away from an earlier one.
// Replies never travel over it; it only carries what handlers happen to print.
#ifndef VEXPROD_DAEMON_DISPATCH_H
#define VEXPROD_DAEMON_DISPATCH_H

#include "kservice.h"

/// Serves one request of the main service or of the mail service. Takes over `io` and `fd` (-1 = none) and frees both.
/// An unknown command ends the caller's connection without a reply.
/// @return 0, always.
int service_handler(const char* command, ks_io* io, int fd);
int sendmail_service_handler(const char* command, ks_io* io, int fd);

/// Body of the handler thread.
/// @param arg  The request_thread that describes the request; borrowed.
void* pthread_callback_function(void* arg);

/// The handler thread's argument.
struct request_thread {
    int fd;
    ks_io* io;
    const char* command; ///< The table's.
    int (*handler)(ks_io* io, int fd);
};

#endif
