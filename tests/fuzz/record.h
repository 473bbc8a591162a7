// A record of a message queue, and the service that hears what becomes of it.
#pragma once

#include "fuzz.h"

/// Passes the input to `relay` as the queue's listener does: as much of it as a record has room for, the rest of the
/// record zero. What the notification service then hears, if anything, is one JSON object.
/// @param body_size  Bytes of a record without its type word.
void relay_record(const std::uint8_t* data, std::size_t size, std::size_t body_size, void (*relay)(void* record));
