// Records of the notification queue, through the relay to the package's notification service.
#include "record.h"
#include "relays.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    relay_record(data, size, kNotifyBodySize, notify_handler);
    return 0;
}
