#include "redirection.h"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <new>

namespace {

constexpr const char* kNullDevice = "/dev/null";

unique_fd open_input(const char* file) noexcept {
    return above_standard_streams(unique_fd(::open(file, O_RDONLY | O_CLOEXEC)));
}

unique_fd open_output(const char* file) noexcept {
    constexpr mode_t kOutputMode = 0774;
    const int fd = file == nullptr ? ::open(kNullDevice, O_WRONLY | O_CLOEXEC)
                                   : ::open(file, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kOutputMode);
    return above_standard_streams(unique_fd(fd));
}

// A second descriptor of the same open file, with one position for both.
unique_fd duplicate(const unique_fd& output) noexcept {
    return unique_fd(::fcntl(output.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

// @return False, for the caller to pass on.
bool trace_failed_output(FILE* trace, const char* file, const unique_fd& output) noexcept {
    if (trace != nullptr) {
        (void)std::fprintf(trace, "open %s failed: %d\n", file == nullptr ? kNullDevice : file, output.get());
    }
    return false;
}

// The input, if one is named.
bool open_named_input(const redirections& files, FILE* trace, child_streams* streams) noexcept {
    if (files.stdin_file == nullptr) {
        return true;
    }
    streams->in = open_input(files.stdin_file);
    if (!streams->in.ok() && trace != nullptr) {
        (void)std::fprintf(trace, "open %s failed\n", files.stdin_file);
    }
    return streams->in.ok();
}

} // namespace

bool open_redirections(const redirections& files, FILE* trace, child_streams* streams) noexcept {
    // Beside a pipe for the output the input comes first: where it is missing, an error file keeps what is in it.
    const bool has_output = streams->out.ok();
    if (has_output && !open_named_input(files, trace, streams)) {
        return false;
    }
    bool shared = false;
    if (!has_output) {
        streams->out = open_output(files.stdout_file);
        if (!streams->out.ok()) {
            return trace_failed_output(trace, files.stdout_file, streams->out);
        }
        shared = files.stdout_file != nullptr && files.stderr_file != nullptr &&
                 std::strcmp(files.stdout_file, files.stderr_file) == 0;
    }
    if (shared && trace != nullptr) {
        (void)std::fprintf(trace, "pipe stdout and stderr to the same file %s\n", files.stderr_file);
    }
    streams->err = shared ? duplicate(streams->out) : open_output(files.stderr_file);
    if (!streams->err.ok()) {
        return trace_failed_output(trace, files.stderr_file, streams->err);
    }
    return has_output || open_named_input(files, trace, streams);
}

void remove_outputs(const redirections& files) noexcept {
    const int saved_errno = errno;
    for (const char* file : {files.stdout_file, files.stderr_file}) {
        if (file != nullptr) {
            (void)::unlink(file); // best effort on the way out of a failure that is reported already
        }
    }
    errno = saved_errno;
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
