#include "json_helpers.h"

void ks_reply_json(const std::string& text, ks_io* io) {
    if (ks_io_alive(io) == 0) {
        return;
    }
    ks_io_realloc(io, 0);
    (void)ks_io_printf(io, "%s", text.c_str()); // a reply that cannot be written reaches the caller empty
    ks_reply(io);
}
