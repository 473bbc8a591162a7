// The single-instance guard.
#ifndef VEXPROD_DAEMON_INSTANCE_H
#define VEXPROD_DAEMON_INSTANCE_H

/// Whether another live process has the same name, by scanning /proc. Compares the kernel's command names, which have
/// at most 15 characters. Zombies do not count.
/// @param path  The program's invocation path; null or empty gives false.
bool ks_reentried(const char* path);

#endif
