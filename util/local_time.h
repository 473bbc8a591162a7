// Local time that follows a changed time zone.
#ifndef VEXPROD_UTIL_LOCAL_TIME_H
#define VEXPROD_UTIL_LOCAL_TIME_H

#include <ctime>

/// What localtime(3) makes of `second`, without its static record. While another thread changes the environment, which
/// TZ is read from, the zone of a moment ago will do, so no lock of ours is waited for. Any thread.
std::tm local_time(std::time_t second);

#endif
