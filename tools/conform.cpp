#include "conform.h"

#include "ksctl.h"
#include "kservice.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ksctl::conform {

void report::add(const char* rule, const std::string& trouble) {
    ++(trouble.empty() ? passed_ : failed_);
    print_line(trouble.empty() ? "ok    " : "FAIL  ", rule, trouble);
}

void report::skip(const char* rule, const std::string& why) {
    ++skipped_;
    print_line("skip  ", rule, why);
}

int report::end() {
    std::string sum = std::to_string(passed_) + " of " + std::to_string(passed_ + failed_) + " checks passed";
    if (skipped_ > 0) {
        sum += ", " + std::to_string(skipped_) + " skipped";
    }
    return print(sum + '\n') && failed_ == 0 ? kSuccess : kFailure;
}

void report::print_line(const char* mark, const char* rule, const std::string& remark) {
    std::string line = std::string(mark) + rule + '\n';
    if (!remark.empty()) {
        line += "      -> " + remark + '\n';
    }
    if (!print(line)) {
        throw stopped{kFailure};
    }
}

std::string with(const char* what, const std::string& trouble) {
    return trouble.empty() ? "" : std::string(what) + ": " + trouble;
}

heard hear(int socket, size_t size, std::chrono::milliseconds longest) {
    constexpr size_t kMostDescriptors = 8;
    heard result;
    pollfd watched = {socket, POLLIN, 0};
    const auto ready = TEMP_FAILURE_RETRY(poll(&watched, 1, static_cast<int>(longest.count())));
    if (ready <= 0) {
        result.silent = true;
        return result;
    }
    result.bytes.resize(size);
    alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))> control{};
    iovec data = {result.bytes.data(), result.bytes.size()};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t count = recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    result.bytes.resize(count > 0 ? static_cast<size_t>(count) : 0); // an error is an end, too
    for (cmsghdr* each = count >= 0 ? CMSG_FIRSTHDR(&message) : nullptr; each != nullptr;
         each = CMSG_NXTHDR(&message, each)) {
        if (each->cmsg_level == SOL_SOCKET && each->cmsg_type == SCM_RIGHTS) {
            std::array<int, kMostDescriptors> numbers{};
            const size_t found = (each->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            memcpy(numbers.data(), CMSG_DATA(each), found * sizeof(int));
            for (size_t i = 0; i < found; ++i) {
                result.descriptors.emplace_back(numbers.at(i));
            }
        }
    }
    return result;
}

std::string wrong_directive(const heard& message, uint8_t type) {
    if (message.silent) {
        return "no " + std::to_string(type) + " came";
    }
    if (message.bytes.empty()) {
        return "the connection ended without a " + std::to_string(type);
    }
    if (!message.descriptors.empty()) {
        return "a descriptor came before the " + std::to_string(type) + " was whole";
    }
    if (message.bytes.size() != sizeof(directive)) {
        return std::to_string(message.bytes.size()) + " bytes came for a " + std::to_string(type);
    }
    const auto came = static_cast<uint8_t>(message.bytes.front());
    return came == type ? "" : std::to_string(came) + " came instead of " + std::to_string(type);
}

std::string make_directive(uint8_t type, uint8_t flags, std::string_view data) {
    std::string bytes = {static_cast<char>(type), static_cast<char>(flags)};
    bytes += data;
    bytes.resize(sizeof(directive));
    return bytes;
}

void send_bytes(int socket, std::string_view bytes) {
    (void)send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void send_descriptors(int socket, const std::vector<int>& descriptors) {
    char byte = 0;
    iovec data = {&byte, 1};
    const size_t size = descriptors.size() * sizeof(int);
    std::vector<char> control(CMSG_SPACE(size)); // aligned for any type, as operator new's
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(size);
        memcpy(CMSG_DATA(header), descriptors.data(), size);
    }
    (void)sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::string content_of(int fd) {
    struct stat file = {};
    (void)fstat(fd, &file);
    std::string content(static_cast<size_t>(file.st_size), '\0');
    const ssize_t count = pread(fd, content.data(), content.size(), 0);
    content.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return content;
}

unique_fd memory_file(std::string_view text, unsigned flags) {
    unique_fd file(memfd_create("conform", MFD_CLOEXEC | flags));
    (void)!write(file.get(), text.data(), text.size()); // short texts; one that is missing fails the check
    return file;
}

} // namespace ksctl::conform
