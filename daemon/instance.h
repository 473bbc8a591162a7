// The single-instance guard.
#ifndef VEXPROD_DAEMON_INSTANCE_H
#define VEXPROD_DAEMON_INSTANCE_H

#include <string>
#include <string_view>

/// Whether another live process has the same name, by scanning /proc. Compares the kernel's command names, which have
/// at most 15 characters. Zombies do not count.
/// @param path  The program's invocation path; null or empty gives false.
bool ks_reentried(const char* path);

/// Whether `line`, of a process's stat file, tells of a live process that runs under `name`.
bool is_live_under(const std::string& line, std::string_view name);

#endif
