#include "redirection.h"

#include <cstring>
#include <new>

bool same_file_name(const char* one, const char* other) noexcept {
    return one != nullptr && other != nullptr && std::strcmp(one, other) == 0;
}

unique_fd open_input(const char* file) noexcept {
    return above_standard_streams(unique_fd(::open(file, O_RDONLY | O_CLOEXEC)));
}

unique_fd open_output(const char* file) noexcept {
    constexpr mode_t kOutputMode = 0774;
    const int fd = file == nullptr ? ::open(kNullDevice, O_WRONLY | O_CLOEXEC)
                                   : ::open(file, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kOutputMode);
    return above_standard_streams(unique_fd(fd));
}

unique_fd open_error(const char* file, int shared_fd) noexcept {
    return shared_fd < 0 ? open_output(file) : unique_fd(::fcntl(shared_fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

void remove_output(const char* file) noexcept {
    if (file != nullptr) {
        const int saved_errno = errno;
        (void)::unlink(file); // best effort on the way out of a failure that is reported already
        errno = saved_errno;
    }
}

std::optional<argument_vector> collect_arguments(const char* path, std::va_list arguments) noexcept {
    try {
        std::vector<std::string> entries = {base_name(path)};
        while (const char* argument = va_arg(arguments, const char*)) {
            entries.emplace_back(argument);
        }
        return argument_vector(std::move(entries));
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}
