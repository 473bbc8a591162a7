#include "fresh_file.h"

#include <fcntl.h>
#include <unistd.h>

unique_fd create_anew(const char* path, mode_t mode) {
    (void)::unlink(path); // whether it worked shows in the next line
    return above_standard_streams(unique_fd(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode)));
}
