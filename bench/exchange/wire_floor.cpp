// The floor of the round trip: the wire of docs/protocol.md in straight-line code, with the system calls that the wire
// needs and no others. No limits, no time-outs, nothing that a caller does wrong is survived. One producer thread, two
// consumer threads, always a connection per call.
//
// Forms, of which "lean" and "thread" may be joined:
//   worker   the handler runs on the consumer's thread
//   thread   it runs on a thread of its own, made for the request and joined
//   lean     the same wire with fewer calls: a directive leaves in one call with the descriptor that follows it, and
//            arrives in one with it; the caller has no epoll, connects before it writes a small payload, so that the
//            hand-over goes on meanwhile, and reads the reply without mapping it
#include "exchange.h"
#include "unique_fd.h"

#include <cstdint>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::array<std::string_view, 4> kFloorForms = {"worker", "thread", "lean", "lean-thread"};
constexpr size_t kWorkers = 2;             // as the daemon's main service
constexpr size_t kSmallPayload = 1U << 16; // one whose writing takes no longer than the hand-over

enum : uint8_t { kReady = 1, kTransfer = 6, kAccepted = 7, kRequest = 8, kReply = 9 };

struct wire_directive {
    uint8_t type = 0;
    uint8_t flags = 0;
    std::array<char, 257> data{};
};
static_assert(sizeof(wire_directive) == 259);

template <class Value>
wire_directive make_directive(uint8_t type, const Value& value) {
    wire_directive made{type, 0, {}};
    memcpy(made.data.data(), &value, sizeof(value));
    return made;
}
template <class Value>
Value value_of(const wire_directive& from) {
    Value value{};
    memcpy(&value, from.data.data(), sizeof(value));
    return value;
}

sockaddr_un address_in(const std::string& folder) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (folder + "/floor").copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

void send_directive(int to_fd, const wire_directive& what) {
    must(send(to_fd, &what, sizeof(what), MSG_DONTWAIT | MSG_NOSIGNAL) == sizeof(what), "send a directive");
}
void receive_directive(int from_fd, uint8_t type, wire_directive* ret_what) {
    must(read(from_fd, ret_what, sizeof(*ret_what)) == sizeof(*ret_what) && ret_what->type == type,
         "receive a directive");
}

// One data byte, one descriptor.
struct descriptor_message {
    char byte = 0;
    iovec data = {&byte, sizeof(byte)};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header = {};

    descriptor_message() {
        header.msg_iov = &data;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
    }
    descriptor_message(const descriptor_message&) = delete;
    descriptor_message& operator=(const descriptor_message&) = delete;

    void put(int fd) {
        cmsghdr* rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_len = CMSG_LEN(sizeof(fd));
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        memcpy(CMSG_DATA(rights), &fd, sizeof(fd));
        header.msg_controllen = rights->cmsg_len;
    }
    [[nodiscard]] unique_fd take() {
        const cmsghdr* rights = CMSG_FIRSTHDR(&header);
        must(rights != nullptr && rights->cmsg_type == SCM_RIGHTS, "receive a descriptor");
        int fd = -1;
        memcpy(&fd, CMSG_DATA(rights), sizeof(fd));
        return unique_fd(fd);
    }
};

void send_with_descriptor(int to_fd, const wire_directive& what, int fd, bool lean) {
    descriptor_message message;
    message.put(fd);
    if (!lean) {
        send_directive(to_fd, what);
        must(sendmsg(to_fd, &message.header, MSG_NOSIGNAL) == 1, "send a descriptor");
        return;
    }
    iovec directive_bytes = {const_cast<wire_directive*>(&what), sizeof(what)};
    std::array<mmsghdr, 2> both{};
    both[0].msg_hdr.msg_iov = &directive_bytes;
    both[0].msg_hdr.msg_iovlen = 1;
    both[1].msg_hdr = message.header;
    must(sendmmsg(to_fd, both.data(), both.size(), MSG_NOSIGNAL) == 2, "send a directive and a descriptor");
}

unique_fd receive_descriptor(int from_fd) {
    descriptor_message message;
    must(recvmsg(from_fd, &message.header, 0) == 1, "receive a descriptor's byte");
    return message.take();
}

unique_fd receive_with_descriptor(int from_fd, uint8_t type, wire_directive* ret_what, bool lean) {
    if (!lean) {
        receive_directive(from_fd, type, ret_what);
        return receive_descriptor(from_fd);
    }
    descriptor_message message;
    std::array<iovec, 2> parts = {iovec{ret_what, sizeof(*ret_what)}, message.data};
    message.header.msg_iov = parts.data();
    message.header.msg_iovlen = parts.size();
    const ssize_t got = recvmsg(from_fd, &message.header, 0);
    must(got >= static_cast<ssize_t>(sizeof(*ret_what)) && ret_what->type == type, "receive a directive");
    return got == sizeof(*ret_what) ? receive_descriptor(from_fd) : message.take();
}

// A file's content, mapped for the length of a scope.
class mapped_file {
public:
    explicit mapped_file(int fd) {
        struct stat st = {};
        must(fstat(fd, &st) == 0, "look at the memory file");
        size_ = static_cast<size_t>(st.st_size);
        if (size_ != 0) {
            data_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            must(data_ != MAP_FAILED, "map the memory file");
        }
    }
    mapped_file(const mapped_file&) = delete;
    mapped_file& operator=(const mapped_file&) = delete;
    ~mapped_file() {
        if (size_ != 0) {
            (void)munmap(data_, size_);
        }
    }

    [[nodiscard]] const void* data() const { return data_; }
    [[nodiscard]] size_t size() const { return size_; }

private:
    void* data_ = nullptr;
    size_t size_ = 0;
};

// ---- Service ----

class service {
public:
    explicit service(const setting& how)
        : threaded_(how.form.ends_with("thread")), lean_(how.form.starts_with("lean")), epoll_(epoll_create1(0)),
          listener_(socket(AF_UNIX, SOCK_STREAM, 0)) {
        const sockaddr_un address = address_in(how.folder);
        must(bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                 listen(listener_.get(), 128) == 0,
             "listen");
        watch(listener_.get(), nullptr);
        for (size_t i = 0; i < workers_.size(); ++i) {
            std::array<int, 2> ends{};
            must(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "link a worker");
            workers_[i].link = ends[0];
            std::thread([this, i, fd = ends[1]] { consume(i, fd); }).detach();
            watch(workers_[i].link, &workers_[i]);
        }
    }

    [[noreturn]] void produce() {
        for (;;) {
            std::array<epoll_event, 64> events{};
            const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i) {
                auto* from = static_cast<worker*>(events[static_cast<size_t>(i)].data.ptr);
                if (from != nullptr) {
                    hear(from);
                    continue;
                }
                const int caller_fd = accept(listener_.get(), nullptr, nullptr);
                if (caller_fd >= 0) {
                    waiting_.push_back(caller_fd);
                    hand_over();
                }
            }
        }
    }

private:
    struct worker {
        int link = -1; // the producer's end
        bool idle = true;
    };

    void watch(int fd, worker* whose) {
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP;
        event.data.ptr = whose;
        must(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0, "watch a socket");
    }

    void hand_over() {
        for (size_t i = 0; i < workers_.size() && !waiting_.empty(); ++i) {
            worker& next = workers_[turn_++ % workers_.size()];
            if (next.idle) {
                const int caller_fd = waiting_.front();
                waiting_.pop_front();
                next.idle = false;
                send_with_descriptor(next.link, make_directive(kTransfer, caller_fd), caller_fd, lean_);
            }
        }
    }

    void hear(worker* from) {
        wire_directive said;
        must(read(from->link, &said, sizeof(said)) == sizeof(said), "hear a worker");
        if (said.type == kTransfer) {
            (void)::close(value_of<int>(said)); // the worker has its copy
        } else if (said.type == kReady) {
            from->idle = true;
            hand_over();
        }
    }

    [[noreturn]] void consume(size_t index, int link) {
        for (;;) {
            serve_one(link);
            send_directive(link, make_directive(kReady, index));
        }
    }

    void serve_one(int link) const {
        wire_directive said;
        const unique_fd caller = receive_with_descriptor(link, kTransfer, &said, lean_);
        send_directive(link, said);
        send_directive(caller.get(), wire_directive{kAccepted, 0, {}});
        const unique_fd file = receive_with_descriptor(caller.get(), kRequest, &said, lean_);
        if (threaded_) {
            std::thread(reply_to, caller.get(), file.get()).join();
        } else {
            reply_to(caller.get(), file.get());
        }
    }

    static void reply_to(int caller_fd, int file_fd) {
        reply_text reply{};
        {
            const mapped_file request(file_fd);
            ucred peer = {};
            socklen_t size = sizeof(peer);
            must(getsockopt(caller_fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0, "ask who calls");
            reply = answer(request.data(), request.size());
        }
        must(ftruncate(file_fd, 0) == 0, "empty the memory file");
        must(pwrite(file_fd, reply.data(), reply.size(), 0) == static_cast<ssize_t>(reply.size()), "write the reply");
        send_directive(caller_fd, wire_directive{kReply, 0, {}});
        (void)shutdown(caller_fd, SHUT_RDWR);
    }

    bool threaded_;
    bool lean_;
    unique_fd epoll_;
    unique_fd listener_;
    std::array<worker, kWorkers> workers_;
    size_t turn_ = 0;
    std::deque<int> waiting_; // owned descriptors, in the order of their arrival
};

// ---- Caller ----

class floor_connection : public connection {
public:
    explicit floor_connection(const setting& how) : lean_(how.form.starts_with("lean")), folder_(how.folder) {}

    void call(std::string_view payload, std::string* ret_reply) override {
        if (lean_) {
            call_leanly(payload, ret_reply);
            return;
        }
        const unique_fd file = store(payload);
        const unique_fd epoll(epoll_create1(0));
        const unique_fd socket = connected();
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP;
        must(epoll_ctl(epoll.get(), EPOLL_CTL_ADD, socket.get(), &event) == 0, "watch the socket");
        wire_directive heard;
        must(epoll_wait(epoll.get(), &event, 1, -1) == 1, "wait for the invitation");
        receive_directive(socket.get(), kAccepted, &heard);
        send_with_descriptor(socket.get(), request(), file.get(), false);
        must(epoll_wait(epoll.get(), &event, 1, -1) == 1, "wait for the reply");
        receive_directive(socket.get(), kReply, &heard);
        const mapped_file reply(file.get());
        ret_reply->assign(static_cast<const char*>(reply.data()), reply.size());
    }

private:
    void call_leanly(std::string_view payload, std::string* ret_reply) const {
        const bool connects_first = payload.size() <= kSmallPayload;
        unique_fd file = connects_first ? unique_fd() : store(payload);
        const unique_fd socket = connected();
        if (connects_first) {
            file = store(payload);
        }
        wire_directive heard;
        receive_directive(socket.get(), kAccepted, &heard);
        send_with_descriptor(socket.get(), request(), file.get(), true);
        receive_directive(socket.get(), kReply, &heard);
        ret_reply->resize(kReplySize);
        must(pread(file.get(), ret_reply->data(), kReplySize, 0) == kReplySize, "read the reply");
    }

    static wire_directive request() { return make_directive(kRequest, std::array<char, 5>{"test"}); }

    static unique_fd store(std::string_view payload) {
        unique_fd file(memfd_create("floor", MFD_CLOEXEC));
        while (!payload.empty()) {
            const ssize_t count = write(file.get(), payload.data(), payload.size());
            must(count > 0, "write the request");
            payload.remove_prefix(static_cast<size_t>(count));
        }
        return file;
    }

    [[nodiscard]] unique_fd connected() const {
        unique_fd made(socket(AF_UNIX, SOCK_STREAM, 0));
        const sockaddr_un address = address_in(folder_);
        must(connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
        return made;
    }

    bool lean_;
    const std::string& folder_;
};

} // namespace

const std::span<const std::string_view> kForms = kFloorForms;

void serve(const setting& how, const std::function<void()>& ready) {
    service running(how);
    ready();
    running.produce();
}

std::unique_ptr<connection> open_connection(const setting& how) {
    return std::make_unique<floor_connection>(how);
}
