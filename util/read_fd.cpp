#include "read_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <unistd.h>

namespace {

// read(2), again while a signal interrupts it.
ssize_t read_some(int fd, void* buffer, std::size_t size_bytes) noexcept {
    ssize_t count = 0;
    do {
        count = ::read(fd, buffer, size_bytes);
    } while (count < 0 && errno == EINTR);
    return count;
}

} // namespace

std::string read_to_end(int fd, std::size_t limit_bytes) {
    std::string text;
    std::array<char, 4096> chunk;
    while (text.size() < limit_bytes) {
        const ssize_t count = read_some(fd, chunk.data(), std::min(chunk.size(), limit_bytes - text.size()));
        if (count <= 0) {
            break;
        }
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    return text;
}
