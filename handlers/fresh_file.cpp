#include "fresh_file.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

unique_fd create_anew(const char* path, mode_t mode) {
    constexpr int kMostTries = 100; // against somebody who plants the name again and again
    int fd = -1;
    for (int tries = 0; fd < 0 && tries < kMostTries; ++tries) {
        if (::unlink(path) != 0 && errno != ENOENT) {
            break;
        }
        fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd < 0 && errno != EEXIST) {
            break;
        }
    }
    return above_standard_streams(unique_fd(fd));
}
