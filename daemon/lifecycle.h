// Start-up, idle loop and shutdown of the daemon.
#ifndef VEXPROD_DAEMON_LIFECYCLE_H
#define VEXPROD_DAEMON_LIFECYCLE_H

/// Runs the daemon from its command line to its end.
/// @return The exit status: 0 after an orderly stop; 255 if the install path is unknown or another instance runs; 254
///         if ks_create() returned no service, although today it aborts instead. A crash, a service that cannot be
///         published, and memory that runs out end the process and do not return. A service whose own thread cannot be
///         made is missing, and so is a relay whose thread or queue cannot: neither is looked at.
int run_daemon(int argc, char** argv);

#endif
