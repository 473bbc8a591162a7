#include "json_helpers.h"

#include <algorithm>
#include <unistd.h>

namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} * 1024;

} // namespace

std::string request_text(const ks_io* io) {
    std::string text;
    // One byte more than allowed, to tell a text that just fits from one that does not.
    const std::size_t wanted = std::min(io->shared_size, kRequestLimitBytes + 1);
    while (text.size() < wanted) {
        const std::size_t used = text.size();
        text.resize(std::min(used + kChunkBytes, wanted));
        // No signal interrupts the reading of a memory file.
        const ssize_t count = ::pread(io->memfd, text.data() + used, text.size() - used, static_cast<off_t>(used));
        if (count < 0) {
            return {};
        }
        text.resize(used + static_cast<std::size_t>(count));
        const std::size_t nul = text.find('\0', used);
        if (nul != std::string::npos) {
            text.resize(nul);
            return text;
        }
        if (count == 0) { // truncated meanwhile
            break;
        }
    }
    return text.size() > kRequestLimitBytes ? std::string() : text;
}
