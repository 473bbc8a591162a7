#include "conversation.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::string_view kRequest = R"({"user":"admin","pwd":"secret"})";

unique_fd memory_file(unsigned flags, off_t size, int seals, off_t offset) {
    unique_fd file(memfd_create("fuzz", MFD_CLOEXEC | flags));
    (void)!write(file.get(), kRequest.data(), kRequest.size());
    if (size >= 0) {
        (void)!ftruncate(file.get(), size);
    }
    (void)lseek(file.get(), offset, SEEK_SET);
    if (seals != 0) {
        (void)fcntl(file.get(), F_ADD_SEALS, seals);
    }
    return file;
}

unique_fd reopened(const unique_fd& file, int mode) {
    return unique_fd(open(("/proc/self/fd/" + std::to_string(file.get())).c_str(), mode | O_CLOEXEC));
}

} // namespace

socket_pair::socket_pair() {
    int ends[2] = {-1, -1};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair can be made");
    ours.reset(ends[0]);
    theirs.reset(ends[1]);
}

void send_message(int socket, std::string_view text, const std::vector<unique_fd>& fds) {
    iovec data = {const_cast<char*>(text.data()), text.size()};
    std::vector<char> control(CMSG_SPACE(sizeof(int) * fds.size()));
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (!fds.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        for (std::size_t i = 0; i < fds.size(); ++i) {
            const int number = fds[i].get();
            std::memcpy(CMSG_DATA(header) + i * sizeof(int), &number, sizeof(number));
        }
    }
    (void)sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

unique_fd make_descriptor(unsigned kind) {
    constexpr off_t kAsWritten = -1;
    constexpr off_t kHuge = off_t{1} << 40;
    constexpr off_t kMost = (off_t{1} << 62);
    switch (kind % 20) {
    case 0:
        return memory_file(0, kAsWritten, 0, 0);
    case 1:
        return memory_file(0, 0, 0, 0);
    case 2:
        return memory_file(MFD_ALLOW_SEALING, kAsWritten, 0, 0);
    case 3:
        return memory_file(MFD_ALLOW_SEALING, kAsWritten, F_SEAL_SEAL, 0);
    case 4:
        return memory_file(MFD_ALLOW_SEALING, kAsWritten, F_SEAL_SHRINK, 0);
    case 5:
        return memory_file(MFD_ALLOW_SEALING, kAsWritten, F_SEAL_GROW, 0);
    case 6:
        return memory_file(MFD_ALLOW_SEALING, kAsWritten, F_SEAL_WRITE, 0);
    case 7:
        return memory_file(MFD_ALLOW_SEALING, kAsWritten, F_SEAL_FUTURE_WRITE, 0);
    case 8:
        return memory_file(0, kHuge, 0, 0);
    case 9:
        return memory_file(0, kMost, 0, 0);
    case 10:
        return memory_file(0, kAsWritten, 0, kMost);
    case 11:
        return reopened(memory_file(0, kAsWritten, 0, 0), O_RDONLY);
    case 12:
        return reopened(memory_file(0, kAsWritten, 0, 0), O_WRONLY);
    case 13:
        return reopened(memory_file(0, kAsWritten, 0, 0), O_PATH);
    case 14:
        return unique_fd(open("/dev/null", O_RDWR | O_CLOEXEC));
    case 15:
        return unique_fd(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    case 16:
        return unique_fd(epoll_create1(EPOLL_CLOEXEC));
    case 17:
        return unique_fd(eventfd(0, EFD_CLOEXEC));
    case 18:
        return std::move(socket_pair().ours);
    default:
        return unique_fd(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)));
    }
}

void say(int socket, script& from) {
    const unsigned what = from.byte();
    std::string text(1, '\0');
    if ((what & 3U) == 1) {
        constexpr std::size_t kTextOffset = 2;
        text.assign(259, '\0');
        text[0] = static_cast<char>(from.byte());
        text[1] = static_cast<char>(from.byte());
        const std::string_view data = from.text(from.byte());
        text.replace(kTextOffset, data.size(), data);
    } else if ((what & 3U) != 0) {
        text = from.text(from.byte());
    }
    std::vector<unique_fd> fds(what >> 2U & 7U);
    std::generate(fds.begin(), fds.end(), [&from] { return make_descriptor(from.byte()); });
    send_message(socket, text, fds);
}
