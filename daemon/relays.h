// The relays: each turns one record of a System V queue into JSON and forwards it to the package's notification
// service. A failed call is logged and the record dropped. Records and commands are described in docs/events.md.
#ifndef VEXPROD_DAEMON_RELAYS_H
#define VEXPROD_DAEMON_RELAYS_H

#include <cstdint>

inline constexpr int kNotifyQueueKey = 65521;
inline constexpr unsigned long kNotifyBodySize = 144;
inline constexpr int kEventLogQueueKey = 65522;
inline constexpr unsigned long kEventLogBodySize = 2488;

/// Callbacks of the listeners, each only on its own listener's thread.
/// @param record  Type word and body, sizeof(long) + the size above bytes.
void eventlog_handler(void* record);
void notify_handler(void* record);

/// The sequence number within a second: 0 for its first record, then 1, 2 ... 999, 0. KEPT: the last-seen second
/// starts as 0, so the very first record of second 0 gives 1. Event-log thread only.
unsigned get_datetime_count(std::int64_t second);

#endif
