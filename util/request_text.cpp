#include "json_helpers.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} * 1024;

ssize_t pread_some(int fd, void* buffer, std::size_t size_bytes, std::size_t offset) {
    ssize_t count = 0;
    do {
        count = ::pread(fd, buffer, size_bytes, static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    return count;
}

} // namespace

std::string request_text(const ks_io* io) {
    std::string text;
    // One byte more than allowed, to tell a text that just fits from one that does not.
    const std::size_t wanted = std::min(io->shared_size, kRequestLimitBytes + 1);
    while (text.size() < wanted) {
        const std::size_t used = text.size();
        text.resize(std::min(used + kChunkBytes, wanted));
        const ssize_t count = pread_some(io->memfd, text.data() + used, text.size() - used, used);
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
