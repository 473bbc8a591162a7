// Plain AF_UNIX stream sockets with nothing above them.
//
// Forms:
//   copy    length and payload through the socket
//   memfd   the payload in a fresh memory file, whose descriptor is passed
// Either way the reply comes back through the socket. A thread for each connection that stays; otherwise two threads,
// which accept, serve one call and hang up.
#include "exchange.h"
#include "unique_fd.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::array<std::string_view, 2> kSocketForms = {"copy", "memfd"};

unique_fd make_socket(const std::string& folder, sockaddr_un* ret_address) {
    *ret_address = {};
    ret_address->sun_family = AF_UNIX;
    (folder + "/sockets").copy(ret_address->sun_path, sizeof(ret_address->sun_path) - 1);
    return unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

// False at the end of the stream.
bool read_all(int fd, void* data, size_t size) {
    for (size_t done = 0; done < size;) {
        const ssize_t count = read(fd, static_cast<char*>(data) + done, size - done);
        if (count <= 0) {
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return true;
}

void write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t count = write(fd, data.data(), data.size());
        must(count > 0, "write");
        data.remove_prefix(static_cast<size_t>(count));
    }
}

// One data byte, with room for one descriptor.
struct descriptor_message {
    char byte = 0;
    iovec data = {&byte, sizeof(byte)};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header = {nullptr, 0, &data, 1, control.data(), control.size(), 0};
};

void send_descriptor(int to_fd, int fd) {
    descriptor_message message;
    cmsghdr* rights = CMSG_FIRSTHDR(&message.header);
    rights->cmsg_len = CMSG_LEN(sizeof(fd));
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    memcpy(CMSG_DATA(rights), &fd, sizeof(fd));
    must(sendmsg(to_fd, &message.header, MSG_NOSIGNAL) == 1, "send a descriptor");
}

// Nothing at the end of the stream.
unique_fd receive_descriptor(int from_fd) {
    descriptor_message message;
    int fd = -1;
    if (recvmsg(from_fd, &message.header, MSG_CMSG_CLOEXEC) == 1) {
        const cmsghdr* rights = CMSG_FIRSTHDR(&message.header);
        must(rights != nullptr, "receive a descriptor");
        memcpy(&fd, CMSG_DATA(rights), sizeof(fd));
    }
    return unique_fd(fd);
}

bool answer_memory_file(int caller_fd, reply_text* ret_reply) {
    const unique_fd file = receive_descriptor(caller_fd);
    if (!file.ok()) {
        return false;
    }
    struct stat st = {};
    must(fstat(file.get(), &st) == 0, "look at the memory file");
    const auto size = static_cast<size_t>(st.st_size);
    void* data = mmap(nullptr, size, PROT_READ, MAP_SHARED, file.get(), 0);
    must(data != MAP_FAILED, "map the memory file");
    *ret_reply = answer(data, size);
    (void)munmap(data, size);
    return true;
}

bool answer_copy(int caller_fd, std::vector<char>* buffer, reply_text* ret_reply) {
    uint64_t size = 0;
    if (!read_all(caller_fd, &size, sizeof(size))) {
        return false;
    }
    if (buffer->size() < size) {
        buffer->resize(size);
    }
    must(read_all(caller_fd, buffer->data(), size), "read the payload");
    *ret_reply = answer(buffer->data(), size);
    return true;
}

// False when the caller has gone.
bool serve_one(int caller_fd, bool by_file, std::vector<char>* buffer) {
    reply_text reply{};
    if (!(by_file ? answer_memory_file(caller_fd, &reply) : answer_copy(caller_fd, buffer, &reply))) {
        return false;
    }
    write_all(caller_fd, {reply.data(), reply.size()});
    return true;
}

class socket_connection : public connection {
public:
    explicit socket_connection(const setting& how) : by_file_(how.form == "memfd") {
        sockaddr_un address = {};
        socket_ = make_socket(how.folder, &address);
        must(connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
    }

    void call(std::string_view payload, std::string* ret_reply) override {
        if (by_file_) {
            const unique_fd file(memfd_create("sockets", MFD_CLOEXEC));
            write_all(file.get(), payload);
            send_descriptor(socket_.get(), file.get());
        } else {
            send_copy(payload);
        }
        ret_reply->resize(kReplySize);
        must(read_all(socket_.get(), ret_reply->data(), kReplySize), "read the reply");
    }

private:
    void send_copy(std::string_view payload) const {
        uint64_t size = payload.size();
        const std::array<iovec, 2> parts = {iovec{&size, sizeof(size)},
                                            iovec{const_cast<char*>(payload.data()), payload.size()}};
        const ssize_t count = writev(socket_.get(), parts.data(), parts.size());
        must(count >= static_cast<ssize_t>(sizeof(size)), "write");
        write_all(socket_.get(), payload.substr(static_cast<size_t>(count) - sizeof(size)));
    }

    bool by_file_;
    unique_fd socket_;
};

} // namespace

const std::span<const std::string_view> kForms = kSocketForms;

void serve(const setting& how, const std::function<void()>& ready) {
    sockaddr_un address = {};
    const unique_fd listener = make_socket(how.folder, &address);
    must(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
             listen(listener.get(), 128) == 0,
         "listen");
    const auto accept_caller = [&] { return unique_fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)); };
    const bool by_file = how.form == "memfd";
    const auto serve_many = [&] {
        std::vector<char> buffer;
        for (;;) {
            (void)serve_one(accept_caller().get(), by_file, &buffer);
        }
    };
    ready();
    if (!how.persistent) {
        std::thread(serve_many).detach();
        serve_many();
    }
    for (;;) {
        std::thread([by_file, caller = accept_caller()] {
            std::vector<char> buffer;
            while (serve_one(caller.get(), by_file, &buffer)) {
            }
        }).detach();
    }
}

std::unique_ptr<connection> open_connection(const setting& how) {
    return std::make_unique<socket_connection>(how);
}
