// Local time that follows a changed time zone.
#ifndef VEXPROD_UTIL_LOCAL_TIME_H
#define VEXPROD_UTIL_LOCAL_TIME_H

#include <ctime>

/// As localtime(3), without its static record. While another thread changes the environment, which holds TZ, the
/// previous zone is used, so no lock of ours is waited for. Any thread.
std::tm local_time(std::time_t second);

#endif
