// The command line.
#ifndef VEXPROD_DAEMON_OPTIONS_H
#define VEXPROD_DAEMON_OPTIONS_H

struct options {
    bool daemonize = false; ///< -d: run in the background.
    bool terminate = false; ///< -t: start everything, then stop at once.
};

/// Reads the options with getopt(3). Unknown ones are reported on standard error and otherwise ignored: options never
/// prevent start-up.
options read_options(int argc, char* const* argv);

#endif
