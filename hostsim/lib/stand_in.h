/* What the stand-ins for the host's libraries share: following a test's knobs and writing down how they were called.
 *
 * The knobs of /usr/lib/LIBRARY are files in /var/lib/hostsim/knobs/_usr_lib_LIBRARY/, its calls are the lines of
 * /var/lib/hostsim/calls/_usr_lib_LIBRARY/log. A knob of every library: "show_variable" = the name of an environment
 * variable, which each call then shows as it finds it in the process, in a second line: "NAME=value" or "NAME is not
 * set". (The kernel's /proc/PID/environ shows only what the process was started with.) */
#ifndef HOSTSIM_STAND_IN_H
#define HOSTSIM_STAND_IN_H

#include <stddef.h>

/* Marks a function that the library offers. */
#define HOST_API __attribute__((visibility("default")))

/* Reads the knob `name` of this library. Returns its bytes with a NUL after them, to be freed by the caller, and their
 * number in *ret_size (may be null); null when the knob is not set. */
char* knob(const char* name, size_t* ret_size);

/* The same for a number. Returns `otherwise` when the knob is not set. */
int number_knob(const char* name, int otherwise);

/* Writes one line about a call. */
void record(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
