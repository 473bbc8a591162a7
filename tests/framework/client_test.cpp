// The calling side: result codes, time-outs, and what becomes of the object.
#include "framework_support.h"
#include "kservice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using support::descriptor;
using support::echo;
using support::make_record;
using support::record;
using support::service;

struct freer {
    void operator()(ks_io* io) const { ks_io_free(io); }
    void operator()(ks_epoll* epoll) const { ks_epoll_free(epoll); }
};
using unique_io = std::unique_ptr<ks_io, freer>;
using unique_epoll = std::unique_ptr<ks_epoll, freer>;

bool is_open(int fd) {
    return fd >= 0 && fcntl(fd, F_GETFD) != -1;
}

void expect_emptied(const ks_io* io) {
    EXPECT_EQ(io->memfd, -1);
    EXPECT_EQ(io->sockfd, -1);
    EXPECT_EQ(io->passfd, -1);
    EXPECT_EQ(io->shared_data, nullptr);
    EXPECT_EQ(io->shared_size, 0U);
}

// The other side of a conversation, written byte by byte.
class scripted_service {
public:
    explicit scripted_service(int backlog = 10)
        : path_(dir_.file("s")), listening_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
        EXPECT_EQ(bind(listening_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listening_.get(), backlog), 0);
        name_ = "@" + path_;
    }
    const char* name() const { return name_.c_str(); }
    const std::string& path() const { return path_; }
    descriptor accept_one() const { return descriptor(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC)); }

private:
    support::temp_dir dir_;
    std::string path_;
    std::string name_;
    descriptor listening_;
};

void say(const descriptor& to, const record& what, size_t size = 259) {
    EXPECT_EQ(send(to.get(), what.data(), size, MSG_NOSIGNAL), (ssize_t)size);
}

// ks_call() against a service that says `type` (or `size` bytes of it) and hangs up.
unsigned code_for(unsigned char type, size_t size = 259) {
    const scripted_service other;
    std::thread server([&] {
        const descriptor caller = other.accept_one();
        say(caller, make_record(type), size);
    });
    const unique_io io(ks_io_create());
    ks_io_write(io.get(), "request", 7);
    const unsigned code = ks_call(other.name(), "c", io.get(), 5, -1);
    server.join();
    if (code != 0) {
        expect_emptied(io.get());
    }
    return code;
}

TEST(ClientTest, EndingDirectivesGiveTheirCodes) {
    EXPECT_EQ(code_for(2), 6U);
    EXPECT_EQ(code_for(4), 3U);
    EXPECT_EQ(code_for(5), 4U);
    EXPECT_EQ(code_for(9), 0U);
    EXPECT_EQ(code_for(2, 258), 5U);
    EXPECT_EQ(code_for(9, 1), 5U);
    EXPECT_EQ(code_for(0), 5U) << "an unknown directive is waited past, then the connection ends";
}

TEST(ClientTest, HangUpWithoutAWordGivesFive) {
    const scripted_service other;
    std::thread server([&] { (void)other.accept_one(); });
    const unique_io io(ks_io_create());
    EXPECT_EQ(ks_call(other.name(), "c", io.get(), 5, -1), 5U);
    expect_emptied(io.get());
    server.join();
}

TEST(ClientTest, MissingServiceGivesTwo) {
    const support::temp_dir dir;
    const unique_io io(ks_io_create());
    EXPECT_EQ(ks_call(("@" + dir.file("nobody")).c_str(), "c", io.get(), 5, -1), 2U);
    expect_emptied(io.get());
    EXPECT_EQ(ks_call("nobody of that name", "c", io.get(), 5, -1), 2U);
    EXPECT_EQ(ks_ez_call("nobody", "c", "x", 1, nullptr, nullptr, 5, -1), 2U);
}

TEST(ClientTest, FailedConnectLeavesTheSocketInTheObject) {
    const support::temp_dir dir;
    const unique_epoll epoll(ks_epoll_create());
    const unique_io io(ks_io_create());
    const std::string name = "@" + dir.file("nobody");
    EXPECT_EQ(ks_epoll_call(epoll.get(), name.c_str(), "c", io.get(), -1), 2U);
    const int first = io->sockfd;
    EXPECT_TRUE(is_open(first));
    const auto open_now = support::open_descriptors().size();
    EXPECT_EQ(ks_epoll_call(epoll.get(), name.c_str(), "c", io.get(), -1), 2U);
    EXPECT_EQ(support::open_descriptors().size(), open_now) << "the next call does not leak it";
    ks_epoll_cancel(epoll.get(), io.get());
    EXPECT_EQ(io->sockfd, -1);
}

TEST(ClientTest, BadArgumentsGiveSevenWithoutTouchingAnything) {
    const unique_io io(ks_io_create());
    const std::string name(65, 'n');
    const std::string command(257, 'c');
    const auto before = support::open_descriptors();
    const unique_epoll epoll(ks_epoll_create());
    EXPECT_EQ(ks_epoll_call(epoll.get(), name.c_str(), "c", io.get(), -1), 7U);
    EXPECT_EQ(ks_epoll_call(epoll.get(), nullptr, "c", io.get(), -1), 7U);
    EXPECT_EQ(ks_epoll_call(epoll.get(), "abc", nullptr, io.get(), -1), 7U);
    EXPECT_EQ(ks_epoll_call(epoll.get(), "abc", command.c_str(), io.get(), -1), 7U);
    EXPECT_EQ(io->sockfd, -1);
    EXPECT_EQ(io->memfd, -1);
    EXPECT_EQ(support::open_descriptors().size(), before.size() + 1);
    EXPECT_EQ(ks_call(name.c_str(), "c", io.get(), 5, -1), 7U);
    EXPECT_EQ(ks_ez_call(name.c_str(), "c", nullptr, 0, nullptr, nullptr, 5, -1), 7U);
}

TEST(ClientTest, LongestNameAndCommandAreTaken) {
    const support::temp_dir dir;
    const std::string name(64, 'n');
    const service one(name, 5, 1, echo);
    std::string reply;
    const std::string command(256, 'c');
    EXPECT_EQ(support::call(name.c_str(), command.c_str(), "", &reply), 0U);
    EXPECT_EQ(reply, command + "||none");
}

// KEPT: unlike ks_create(), no "/" is asked for.
TEST(ClientTest, AtNameMayBeARelativePath) {
    const support::temp_dir dir;
    const service one("@" + dir.file("rel"), 5, 1, echo);
    char* before = getcwd(nullptr, 0);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    std::string reply;
    EXPECT_EQ(support::call("@rel", "c", "", &reply), 0U);
    ASSERT_EQ(chdir(before), 0);
    free(before);
}

TEST(ClientTest, AtNameIsCutTo63Characters) {
    EXPECT_EQ(ks_ez_call(("@/" + std::string(63, 'x')).c_str(), "c", nullptr, 0, nullptr, nullptr, 5, -1), 7U);
    const std::string path = "/tmp/" + std::string(58, 'p');
    const service one("@" + path, 5, 1, echo);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    std::string reply;
    EXPECT_EQ(support::call(("@" + path).c_str(), "c", "", &reply), 0U);
}

TEST(ClientTest, SuccessLeavesExactlyTheReply) {
    const service one(5, 1, echo);
    const unique_io io(ks_io_create());
    ks_io_write(io.get(), "a request that is longer than its reply will be", 47);
    ks_io_realloc(io.get(), 0);
    ks_io_write(io.get(), "r", 1);
    ASSERT_EQ(ks_call(one.name(), "c", io.get(), 5, -1), 0U);
    EXPECT_EQ(io->sockfd, -1);
    ASSERT_EQ(io->shared_size, strlen("c|r|none"));
    EXPECT_EQ(memcmp(io->shared_data, "c|r|none", io->shared_size), 0);
    size_t size = 0;
    EXPECT_EQ(memcmp(ks_io_read(io.get(), &size), "c|r|none", 8), 0);
    EXPECT_EQ(size, 8U);
    // And it serves for the next request.
    ks_io_realloc(io.get(), 0);
    ks_io_write(io.get(), "again", 5);
    ASSERT_EQ(ks_call(one.name(), "c", io.get(), 5, -1), 0U);
    EXPECT_EQ(support::text_of(io.get()), "c|again|none");
}

TEST(ClientTest, ExtraDescriptorIsBorrowed) {
    const service one(5, 1, echo);
    const descriptor extra = support::memory_file("extra");
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "t", &reply, extra.get()), 0U);
    EXPECT_EQ(reply, "c|t|extra");
    EXPECT_TRUE(is_open(extra.get()));
    EXPECT_EQ(support::call("nobody", "c", "t", &reply, extra.get()), 2U);
    EXPECT_TRUE(is_open(extra.get()));
    EXPECT_EQ(support::call(one.name(), "c", "t", &reply, 4444), 0U);
    EXPECT_EQ(reply, "c|t|none") << "a closed number counts as none";
}

TEST(ClientTest, DescriptorZeroCanBePassed) {
    const service one(5, 1, echo);
    const descriptor saved(fcntl(0, F_DUPFD_CLOEXEC, 100));
    const descriptor extra = support::memory_file("zero");
    ASSERT_EQ(dup2(extra.get(), 0), 0);
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply, 0), 0U);
    EXPECT_EQ(reply, "c||zero");
    dup2(saved.get(), 0);
}

TEST(ClientTest, RequestIsSentOnlyWhenInvited) {
    const scripted_service other;
    const unique_epoll epoll(ks_epoll_create());
    const unique_io io(ks_io_create());
    const descriptor extra = support::memory_file();
    ASSERT_EQ(ks_epoll_call(epoll.get(), other.name(), "command", io.get(), extra.get()), 0U);
    EXPECT_GE(io->memfd, 3) << "made even for an empty request";
    EXPECT_EQ(io->passfd, extra.get());
    EXPECT_STREQ(io->command, "command");
    const descriptor caller = other.accept_one();
    char byte = 0;
    EXPECT_EQ(recv(caller.get(), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    unsigned code = 99;
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 0, &code), nullptr);
    EXPECT_EQ(code, 1U);

    say(caller, make_record(7));
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 5000, &code), nullptr);
    EXPECT_EQ(code, 0U);
    record request = {};
    ASSERT_EQ(recv(caller.get(), request.data(), request.size(), MSG_WAITALL), 259);
    EXPECT_EQ(request, make_record(8, 1, "command"));
    for (int i = 0; i < 2; ++i) {
        iovec data = {&byte, 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        byte = 'x';
        ASSERT_EQ(recvmsg(caller.get(), &message, 0), 1) << "one data byte";
        EXPECT_EQ(byte, 0);
        const cmsghdr* header = CMSG_FIRSTHDR(&message);
        ASSERT_NE(header, nullptr);
        EXPECT_EQ(header->cmsg_len, 20U);
        EXPECT_EQ(header->cmsg_level, SOL_SOCKET);
        EXPECT_EQ(header->cmsg_type, SCM_RIGHTS);
        int fd = -1;
        memcpy(&fd, CMSG_DATA(header), sizeof(fd));
        const descriptor received(fd);
        EXPECT_EQ(write(received.get(), i == 0 ? "reply" : "extra", 5), 5);
    }
    say(caller, make_record(9));
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 5000, nullptr), io.get());
    EXPECT_EQ(std::string(static_cast<char*>(io->shared_data), io->shared_size), "reply");
    char text[5];
    EXPECT_EQ(pread(extra.get(), text, 5, 0), 5);
    EXPECT_EQ(memcmp(text, "extra", 5), 0);
}

TEST(ClientTest, RequestWithoutExtraDescriptorPromisesNone) {
    const scripted_service other;
    const unique_epoll epoll(ks_epoll_create());
    const unique_io io(ks_io_create());
    ASSERT_EQ(ks_epoll_call(epoll.get(), other.name(), "c", io.get(), -1), 0U);
    const descriptor caller = other.accept_one();
    say(caller, make_record(7));
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 5000, nullptr), nullptr);
    record request = {};
    ASSERT_EQ(recv(caller.get(), request.data(), request.size(), MSG_WAITALL), 259);
    EXPECT_EQ(request, make_record(8, 0, "c"));
}

TEST(ClientTest, CancelEndsARequestInFlight) {
    const scripted_service other;
    const unique_epoll epoll(ks_epoll_create());
    const unique_io io(ks_io_create());
    ASSERT_EQ(ks_epoll_call(epoll.get(), other.name(), "c", io.get(), -1), 0U);
    const descriptor caller = other.accept_one();
    ks_epoll_cancel(epoll.get(), io.get());
    EXPECT_EQ(io->sockfd, -1);
    EXPECT_GE(io->memfd, 0) << "only the connection";
    char byte = 0;
    EXPECT_EQ(recv(caller.get(), &byte, 1, 0), 0);
    unsigned code = 99;
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 0, &code), nullptr);
    EXPECT_EQ(code, 1U);
    ks_epoll_cancel(epoll.get(), io.get()); // nothing left to do
}

TEST(ClientTest, OneSetCarriesManyRequests) {
    const service one(5, 3, echo);
    const unique_epoll epoll(ks_epoll_create());
    EXPECT_EQ(memcmp(epoll.get(), "-VEk", 4), 0);
    EXPECT_GE(epoll->fd, 3);
    std::vector<unique_io> requests;
    for (int i = 0; i < 50; ++i) {
        requests.emplace_back(ks_io_create());
        ks_io_printf(requests.back().get(), "%d", i);
        ASSERT_EQ(ks_epoll_call(epoll.get(), one.name(), "n", requests.back().get(), -1), 0U);
    }
    for (int done = 0; done < 50;) {
        unsigned code = 99;
        const ks_io* finished = ks_epoll_perform(epoll.get(), 30000, &code);
        ASSERT_EQ(code, 0U);
        done += finished != nullptr;
    }
    for (size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(support::text_of(requests[i].get()), "n|" + std::to_string(i) + "|none");
    }
}

TEST(ClientTest, PerformOnAnEmptySetTimesOut) {
    const unique_epoll epoll(ks_epoll_create());
    const auto begin = std::chrono::steady_clock::now();
    unsigned code = 99;
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 50, &code), nullptr);
    EXPECT_EQ(code, 1U);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(49));
}

std::atomic<int> served{0};

std::atomic<int> answered_file = -1;
int answer_at_length(const char*, ks_io* io, int) {
    answered_file = dup(io->memfd);
    ks_io_realloc(io, 0);
    (void)ks_io_printf(io, "%08191d", 1);
    ks_reply(io);
    ks_io_free(io);
    return 0;
}

// The service has the file open, and can cut it between two of the client's reads.
TEST(ClientTest, ReplyThatIsCutWhileItIsCopiedEndsThere) {
    const auto copies_what_is_there = [] {
        support::end_within(std::chrono::seconds(60));
        const service one(5, 1, answer_at_length);
        support::supervised_calls calls({SYS_pread64});
        const support::gate first;
        const support::gate second;
        calls.hold_next(first);
        std::thread cutter([&] {
            bool good = first.await();
            calls.hold_next(second);
            first.open();
            good = good && second.await() && ftruncate(answered_file, 5000) == 0;
            second.open();
            if (!good) {
                _exit(2);
            }
        });
        void* reply = nullptr;
        size_t size = 0;
        const unsigned code = ks_ez_call(one.name(), "c", nullptr, 0, &reply, &size, 30, -1);
        cutter.join();
        _exit(code == KS_OK && size == 5000 ? 0 : 1);
    };
    EXPECT_EXIT(copies_what_is_there(), testing::ExitedWithCode(0), "");
}

TEST(ClientTest, EasyCallCopiesTheReply) {
    const service one(5, 1, echo);
    void* reply = nullptr;
    size_t size = 0;
    ASSERT_EQ(ks_ez_call(one.name(), "c", "data", 4, &reply, &size, 5, -1), 0U);
    EXPECT_EQ(std::string(static_cast<char*>(reply), size), "c|data|none");
    free(reply);
    reply = nullptr;
    ASSERT_EQ(ks_ez_call(one.name(), "c", nullptr, 0, &reply, nullptr, 5, -1), 0U);
    free(reply);
    EXPECT_EQ(ks_ez_call(one.name(), "c", nullptr, 0, nullptr, nullptr, 5, -1), 0U);
    EXPECT_EQ(ks_ez_call(one.name(), "c", "x", 1, nullptr, &size, 5, -1), 0U);
    reply = nullptr;
    size = 77;
    EXPECT_EQ(ks_ez_call("nobody", "c", "x", 1, &reply, &size, 5, -1), 2U);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(size, 77U);
}

// Half a privileged command could be another one: a request that cannot be stored whole is not sent at all.
TEST(ClientTest, EasyCallSendsNothingWhenItsRequestCannotBeStored) {
    served = 0;
    const service one(5, 1, [](const char*, ks_io* io, int) {
        ++served;
        support::answer(io, "");
        return 0;
    });
    const pid_t child = fork();
    if (child == 0) {
        // 4096 bytes are stored, then the limit is met.
        const rlimit limit = {4096, 4096};
        const std::string request(5000, 'r');
        void* reply = nullptr;
        size_t size = 77;
        (void)signal(SIGXFSZ, SIG_DFL); // the service above ignores it
        bool good = setrlimit(RLIMIT_FSIZE, &limit) == 0;
        const auto before = support::open_descriptors();
        good = good && ks_ez_call(one.name(), "c", request.data(), request.size(), &reply, &size, 5, -1) == 5 &&
               reply == nullptr && size == 77 && support::open_descriptors() == before;
        // Nor when nothing at all is stored.
        support::fail_system_call(SYS_write, ENOSPC);
        good = good && ks_ez_call(one.name(), "c", "r", 1, nullptr, nullptr, 5, -1) == 5;
        _exit(good ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", std::string(5000, 'r'), &reply), 0U);
    EXPECT_EQ(served, 1) << "the last call alone";
}

TEST(ClientTest, EasyCallTakesAnEmptyAndALargeReply) {
    const service one(5, 1, [](const char* command, ks_io* io, int) {
        support::answer(io, std::string(strtoul(command, nullptr, 10), 'r'));
        return 0;
    });
    for (const size_t wanted : {0UL, 1UL, 4096UL, 5000001UL}) {
        void* reply = nullptr;
        size_t size = 1;
        ASSERT_EQ(ks_ez_call(one.name(), std::to_string(wanted).c_str(), nullptr, 0, &reply, &size, 20, -1), 0U);
        EXPECT_EQ(size, wanted);
        EXPECT_EQ(std::string(static_cast<char*>(reply), size), std::string(wanted, 'r'));
        free(reply);
    }
}

TEST(ClientTest, ReplyWithoutSuccessBytesIsTheRequestItself) {
    const service one(5, 1, [](const char*, ks_io* io, int) {
        ks_reply(io);
        ks_io_free(io);
        return 0;
    });
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "as sent", &reply), 0U);
    EXPECT_EQ(reply, "as sent");
}

TEST(ClientTest, RequestThatIsNotAnsweredEndsWithFive) {
    const service one(5, 1, [](const char*, ks_io* io, int) {
        ks_io_free(io);
        return 0;
    });
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 5U);
}

TEST(ClientTest, CallsLeaveNoDescriptors) {
    const service one(5, 2, echo);
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    const auto before = support::settled_descriptors();
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(support::call(one.name(), "c", "t", &reply), 0U);
        ASSERT_EQ(support::call("nobody", "c", "t", &reply), 2U);
    }
    EXPECT_TRUE(support::eventually([&] { return support::open_descriptors().size() == before; }));
}

// ---- Events that no service of ours brings about, put into the set by hand: it is the caller's

// An error or a hang-up of the other side's reading end ends the request, whatever was said before.
TEST(ClientTest, ErrorOrBareHangUpEndsTheRequestUnread) {
    for (const int watched : {0, 1}) {
        const unique_epoll epoll(ks_epoll_create());
        const unique_io io(ks_io_create());
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        io->sockfd = pair[0];
        const descriptor other(pair[1]);
        say(other, make_record(9));
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const descriptor one_end(ends[watched]); // reading: EPOLLHUP, writing: EPOLLERR
        close(ends[1 - watched]);
        epoll_event event = {EPOLLIN, {io.get()}};
        ASSERT_EQ(epoll_ctl(epoll->fd, EPOLL_CTL_ADD, one_end.get(), &event), 0);
        unsigned code = 99;
        EXPECT_EQ(ks_epoll_perform(epoll.get(), 5000, &code), io.get());
        EXPECT_EQ(code, 5U);
        expect_emptied(io.get());
    }
}

TEST(ClientTest, EventOfNoRequestAndASetThatIsNoneAreTimeouts) {
    const unique_epoll epoll(ks_epoll_create());
    const descriptor ready(eventfd(1, EFD_CLOEXEC));
    epoll_event event = {EPOLLIN, {nullptr}};
    ASSERT_EQ(epoll_ctl(epoll->fd, EPOLL_CTL_ADD, ready.get(), &event), 0);
    unsigned code = 99;
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 60000, &code), nullptr);
    EXPECT_EQ(code, 1U);
    const int fd = std::exchange(epoll->fd, -1);
    code = 99;
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 60000, &code), nullptr);
    EXPECT_EQ(code, 1U);
    epoll->fd = fd;
}

// A copy of the socket, as a child process would hold it, keeps nothing alive: neither the request in the set nor the
// conversation.
TEST(ClientTest, CopyOfTheSocketDoesNotKeepARequestThatHasEnded) {
    const scripted_service other;
    const unique_epoll epoll(ks_epoll_create());
    for (const bool cancelled : {true, false}) {
        const unique_io io(ks_io_create());
        ASSERT_EQ(ks_epoll_call(epoll.get(), other.name(), "c", io.get(), -1), 0U);
        const descriptor copy(dup(io->sockfd));
        const descriptor caller = other.accept_one();
        unsigned code = 99;
        if (cancelled) {
            ks_epoll_cancel(epoll.get(), io.get());
        } else {
            say(caller, make_record(4));
            EXPECT_EQ(ks_epoll_perform(epoll.get(), 5000, &code), io.get());
        }
        char byte = 0;
        EXPECT_EQ(recv(caller.get(), &byte, 1, MSG_DONTWAIT), 0);
        EXPECT_EQ(ks_epoll_perform(epoll.get(), 0, &code), nullptr);
        EXPECT_EQ(code, 1U);
    }
}

TEST(ClientTest, CopyOfTheSocketDoesNotKeepAConversationThatWasAnswered) {
    static descriptor copy;
    service one(5, 1, [](const char*, ks_io* io, int) {
        copy.reset(dup(io->sockfd));
        support::answer(io, "");
        return 0;
    });
    const support::raw_caller caller(one.path());
    const descriptor file = support::memory_file();
    ASSERT_TRUE(caller.invited());
    EXPECT_TRUE(caller.request("c", file.get()));
    EXPECT_TRUE(caller.hung_up());
    one.stop();
    copy.reset();
}

TEST(ClientTest, FreeClosesTheSetAndLeavesItsRequests) {
    const scripted_service other;
    const unique_io io(ks_io_create());
    ks_epoll* epoll = ks_epoll_create();
    ASSERT_EQ(ks_epoll_call(epoll, other.name(), "c", io.get(), -1), 0U);
    const int fd = epoll->fd;
    ks_epoll_free(epoll);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(is_open(io->sockfd));
}

TEST(ClientTest, DescriptorsStayAboveTheStandardStreams) {
    const scripted_service other;
    EXPECT_EXIT(
        {
            close(0);
            close(1);
            ks_epoll* epoll = ks_epoll_create();
            ks_io* io = ks_io_create();
            const bool good = ks_epoll_call(epoll, other.name(), "c", io, -1) == 0 && epoll->fd > 2 && io->sockfd > 2 &&
                              io->memfd > 2 && !is_open(0) && !is_open(1);
            _exit(good ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// The service hangs up right after its invitation: the request meets a closed connection.
TEST(ClientTest, RequestToAServiceThatHungUpCostsNoSignal) {
    const scripted_service other;
    EXPECT_EXIT(
        {
            (void)signal(SIGPIPE, SIG_DFL);
            ks_epoll* epoll = ks_epoll_create();
            ks_io* io = ks_io_create();
            bool good = ks_epoll_call(epoll, other.name(), "c", io, -1) == 0;
            {
                const descriptor caller = other.accept_one();
                say(caller, make_record(7));
            }
            unsigned code = 99;
            good = good && ks_epoll_perform(epoll, 5000, &code) == nullptr && code == 0 &&
                   ks_epoll_perform(epoll, 5000, &code) == io && code == 5;
            _exit(good ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// The service must not wait for descriptors that never come, nor the caller for its reply.
TEST(ClientTest, RequestWhoseDescriptorsCannotBeSentEndsWithFive) {
    const service one(5, 1, echo);
    EXPECT_EXIT(
        {
            support::limit_descriptors_in_flight();
            const support::no_descriptor_passed from_here_on;
            _exit((int)ks_ez_call(one.name(), "c", "t", 1, nullptr, nullptr, 10, -1));
        },
        testing::ExitedWithCode(5), "")
        << "not a time-out";
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "t", &reply), 0U);
}

// The service left the file in a state in which nobody can map it.
TEST(ClientTest, ReplyThatCannotBeMappedEndsWithFive) {
    const service one(5, 1, [](const char*, ks_io* io, int) {
        EXPECT_EQ(ftruncate(ks_io_fileno(io), (off_t)1 << 62), 0);
        ks_reply(io);
        ks_io_free(io);
        return 0;
    });
    const unique_io alone(ks_io_create());
    EXPECT_EQ(ks_call(one.name(), "c", alone.get(), 5, -1), 5U);
    expect_emptied(alone.get());

    const unique_epoll epoll(ks_epoll_create());
    const unique_io io(ks_io_create());
    ASSERT_EQ(ks_epoll_call(epoll.get(), one.name(), "c", io.get(), -1), 0U);
    unsigned code = 99;
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 30000, &code), nullptr);
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 30000, &code), io.get());
    EXPECT_EQ(code, 5U);
    expect_emptied(io.get());
}

// ---- Time-outs: 0 and 3 seconds both wait 5. All at once, as they take their time.

struct outcome {
    unsigned code = 99;
    std::chrono::milliseconds took{};
};

outcome timed_call(const char* name, unsigned timeout_s) {
    const auto begin = std::chrono::steady_clock::now();
    const unique_io io(ks_io_create());
    outcome result;
    result.code = ks_call(name, "c", io.get(), timeout_s, -1);
    result.took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
    if (result.code != 0) {
        expect_emptied(io.get());
    }
    return result;
}

TEST(ClientTimeoutTest, AtLeastFiveSecondsAreWaited) {
    const scripted_service other; // lets connect and says nothing
    outcome zero;
    outcome three;
    outcome seven;
    std::thread first([&] { zero = timed_call(other.name(), 0); });
    std::thread second([&] { three = timed_call(other.name(), 3); });
    std::thread third([&] { seven = timed_call(other.name(), 7); });
    const descriptor callers[] = {other.accept_one(), other.accept_one(), other.accept_one()};
    const pid_t child = fork(); // holds a copy of the callers' sockets
    if (child == 0) {
        for (;;) {
            pause();
        }
    }
    first.join();
    second.join();
    third.join();
    for (const outcome& each : {zero, three}) {
        EXPECT_EQ(each.code, 1U);
        EXPECT_GE(each.took.count(), 4990);
        EXPECT_LT(each.took.count(), 6500);
    }
    EXPECT_LT(std::min(zero.took, three.took).count(), 5950) << "five seconds, not six";
    EXPECT_EQ(seven.code, 1U);
    EXPECT_GE(seven.took.count(), 6990);
    EXPECT_LT(seven.took.count(), 8500);
    for (const descriptor& each : callers) {
        char byte = 0;
        EXPECT_EQ(recv(each.get(), &byte, 1, MSG_DONTWAIT), 0) << "the service sees the end all the same";
    }
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

// KEPT: after the invitation at 2 s, 5 - 2 = 3 s are left: the end comes at 5 s. A second invitation at 3 s takes 3 off
// again: nothing is left.
TEST(ClientTimeoutTest, EachPassTakesTheWholeTimeOffTheBudget) {
    const scripted_service other;
    std::thread server([&] {
        const descriptor caller = other.accept_one();
        std::this_thread::sleep_for(std::chrono::seconds(2)); // the passing of time is what is tested
        say(caller, make_record(7));
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        say(caller, make_record(7));
        char byte = 0;
        while (recv(caller.get(), &byte, 1, 0) > 0) {
        }
    });
    const outcome result = timed_call(other.name(), 5);
    server.join();
    EXPECT_EQ(result.code, 1U);
    EXPECT_GE(result.took.count(), 3190);
    EXPECT_LT(result.took.count(), 4500);
}

// What connecting took is taken off once, like any other time before the invitation.
TEST(ClientTimeoutTest, WaitingToConnectIsTakenOffTheBudgetOnce) {
    const scripted_service full(0);
    const support::raw_caller only(full.path());
    ASSERT_TRUE(only.connected());
    std::thread server([&] {
        std::this_thread::sleep_for(std::chrono::seconds(3)); // the passing of time is what is tested
        const descriptor first = full.accept_one();
        const descriptor caller = full.accept_one();
        say(caller, make_record(7));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        say(caller, make_record(9));
    });
    const outcome result = timed_call(full.name(), 5);
    server.join();
    EXPECT_EQ(result.code, 0U) << "two seconds were left for the reply";
}

// Each wait may take the whole time: the last word comes later than that, and is heard nevertheless.
TEST(ClientTimeoutTest, UnknownDirectiveStartsTheSameWaitAgain) {
    // Says `words` unknown ones and then `last`, 800 ms apart; the passing of time is what is tested.
    const auto chatter = [](const scripted_service& own, unsigned char last, int words) {
        const descriptor caller = own.accept_one();
        for (int i = 0; i <= words; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(800));
            say(caller, make_record(i < words ? 200 : last));
        }
    };
    const scripted_service lone;
    std::thread lone_server([&] { chatter(lone, 9, 6); });
    outcome alone;
    std::thread lone_caller([&] { alone = timed_call(lone.name(), 5); });

    const scripted_service other;
    std::thread server([&] { chatter(other, 7, 3); });
    const unique_epoll epoll(ks_epoll_create());
    const unique_io io(ks_io_create());
    EXPECT_EQ(ks_epoll_call(epoll.get(), other.name(), "c", io.get(), -1), 0U);
    unsigned code = 99;
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 2000, &code), nullptr);
    EXPECT_EQ(code, 0U) << "invited after 3.2 s";

    server.join();
    lone_caller.join();
    lone_server.join();
    EXPECT_EQ(alone.code, 0U) << "answered after 5.6 s";
}

std::atomic<unsigned> alarms{0};

// A signal ends no wait, and does not start it again either: then this one would last as long as the signals come.
TEST(ClientTimeoutTest, SignalsMakeAWaitNeitherShorterNorLonger) {
    constexpr unsigned kTooMany = 2000; // twenty seconds' worth
    alarms = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) {
        if (++alarms >= kTooMany) {
            const itimerval never = {};
            setitimer(ITIMER_REAL, &never, nullptr);
        }
    };
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    const itimerval every_10_ms = {{0, 10000}, {0, 10000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every_10_ms, nullptr), 0);

    const scripted_service other; // lets connect and says nothing
    const unique_epoll epoll(ks_epoll_create());
    unsigned code = 99;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ks_epoll_perform(epoll.get(), 300, &code), nullptr);
    EXPECT_EQ(code, 1U);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(299));
    const outcome alone = timed_call(other.name(), 5);
    EXPECT_EQ(alone.code, 1U);
    EXPECT_GE(alone.took.count(), 4990);
    // Where connecting is what has to be waited for.
    const scripted_service full(0);
    const support::raw_caller only(full.path());
    ASSERT_TRUE(only.connected());
    const outcome connecting = timed_call(full.name(), 5);
    EXPECT_EQ(connecting.code, 1U);
    EXPECT_GE(connecting.took.count(), 4990);
    EXPECT_LT(alarms, kTooMany);

    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

// Nor does a set wait for ever where nobody accepts.
TEST(ClientTimeoutTest, FullBacklogEndsARequestOfASet) {
    const scripted_service full(0);
    const support::raw_caller only(full.path());
    ASSERT_TRUE(only.connected());
    const unique_epoll epoll(ks_epoll_create());
    const unique_io io(ks_io_create());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ks_epoll_call(epoll.get(), full.name(), "c", io.get(), -1), 1U);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4990));
    const descriptor accepted = full.accept_one();
    EXPECT_EQ(ks_epoll_call(epoll.get(), full.name(), "c", io.get(), -1), 0U) << "there is room now";
}

TEST(ClientTimeoutTest, PatientCallOutlastsASlowService) {
    const service one(5, 1, [](const char*, ks_io* io, int) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // slowness itself
        support::answer(io, "late");
        return 0;
    });
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_EQ(reply, "late");
}

} // namespace
