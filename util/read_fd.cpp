#include "read_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <unistd.h>

std::string read_to_end(int fd, std::size_t limit_bytes) {
    std::string text;
    std::array<char, 4096> chunk;
    while (text.size() < limit_bytes) {
        const ssize_t count =
            TEMP_FAILURE_RETRY(::read(fd, chunk.data(), std::min(chunk.size(), limit_bytes - text.size())));
        if (count <= 0) {
            break;
        }
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    return text;
}
