// The conversation byte by byte, and the records as they lie in memory: what others have been built against.
#include "framework_support.h"
#include "kservice.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using support::descriptor;

TEST(WireTest, DirectiveIs259BytesWithoutPadding) {
    EXPECT_EQ(sizeof(directive), 259U);
    EXPECT_EQ(offsetof(directive, type), 0U);
    EXPECT_EQ(offsetof(directive, flags), 1U);
    EXPECT_EQ(offsetof(directive, data), 2U);
}

TEST(WireTest, NumbersOfTheProtocol) {
    EXPECT_EQ(KS_DIRECTIVE_READY, 1);
    EXPECT_EQ(KS_DIRECTIVE_BUSY, 2);
    EXPECT_EQ(KS_DIRECTIVE_STOP, 3);
    EXPECT_EQ(KS_DIRECTIVE_PAUSED, 4);
    EXPECT_EQ(KS_DIRECTIVE_REFUSED, 5);
    EXPECT_EQ(KS_DIRECTIVE_TRANSFER, 6);
    EXPECT_EQ(KS_DIRECTIVE_ACCEPTED, 7);
    EXPECT_EQ(KS_DIRECTIVE_REQUEST, 8);
    EXPECT_EQ(KS_DIRECTIVE_REPLY, 9);
    EXPECT_EQ(KS_DIRECTIVE_HAS_FD, 1);
    EXPECT_EQ(LISTEN_SOCK, 1);
    EXPECT_EQ(CONSUMER_SOCK, 2);
    EXPECT_EQ(CLIENT_SOCK, 3);
    EXPECT_EQ(KS_STANDALONE, 1);
    EXPECT_EQ(KS_PROCESS_MODE, 2);
    EXPECT_EQ(KS_PTHREAD_MODE, 4);
    EXPECT_EQ(KS_IO_MAGIC, 0x6B494F2DU);
    EXPECT_EQ(KS_HANDLE_MAGIC, 0x6B53562DU);
    EXPECT_EQ(KS_EPOLL_MAGIC, 0x6B45562DU);
    EXPECT_EQ(MAXIMUM_NAME_SIZE, 64);
    EXPECT_STREQ(BLOCKED_PROGRAM_LIST,
                 "(\\b|/)(ash|bash|csh|jsh|ksh|ksh93|pfcsh|pfksh|pfsh|pfsh|rbash|rksh93|sh|tcsh|zsh|busybox|php|"
                 "python.*)$");
}

TEST(WireTest, RecordsLieAsOthersWereBuiltAgainst) {
    static_assert(sizeof(void*) == 8);
    EXPECT_EQ(offsetof(ks_io, magic), 0U);
    EXPECT_EQ(offsetof(ks_io, memfd), 4U);
    EXPECT_EQ(offsetof(ks_io, sockfd), 8U);
    EXPECT_EQ(offsetof(ks_io, passfd), 12U);
    EXPECT_EQ(offsetof(ks_io, command), 16U);
    EXPECT_EQ(offsetof(ks_io, userdata), 280U);
    EXPECT_EQ(offsetof(ks_io, shared_data), 288U);
    EXPECT_EQ(offsetof(ks_io, shared_size), 296U);
    EXPECT_EQ(offsetof(ks_io, cred), 304U);
    EXPECT_EQ(sizeof(ks_cred), 12U);

    EXPECT_EQ(offsetof(ks_handle, magic), 0U);
    EXPECT_EQ(offsetof(ks_handle, paused), 4U);
    EXPECT_EQ(offsetof(ks_handle, stopping), 5U);
    EXPECT_EQ(offsetof(ks_handle, sockfile), 6U);
    EXPECT_EQ(offsetof(ks_handle, name), 71U);
    EXPECT_EQ(offsetof(ks_handle, mode), 136U);
    EXPECT_EQ(offsetof(ks_handle, service_size), 144U);
    EXPECT_EQ(offsetof(ks_handle, exec), 152U);
    EXPECT_EQ(offsetof(ks_handle, init), 160U);
    EXPECT_EQ(offsetof(ks_handle, init_argument), 168U);
    EXPECT_EQ(offsetof(ks_handle, fini), 176U);
    EXPECT_EQ(offsetof(ks_handle, fini_argument), 184U);
    EXPECT_EQ(offsetof(ks_handle, worker), 192U);

    EXPECT_EQ(offsetof(ks_worker, idle), 0U);
    EXPECT_EQ(offsetof(ks_worker, pollfd), 4U);
    EXPECT_EQ(offsetof(ks_worker, sockfd), 8U);
    EXPECT_EQ(offsetof(ks_worker, index), 16U);
    EXPECT_EQ(offsetof(ks_worker, id), 24U);
    EXPECT_EQ(offsetof(ks_worker, flags), 32U);
    EXPECT_EQ(offsetof(ks_worker, exec), 40U);
    EXPECT_EQ(offsetof(ks_worker, init), 48U);
    EXPECT_EQ(offsetof(ks_worker, init_argument), 56U);
    EXPECT_EQ(offsetof(ks_worker, fini), 64U);
    EXPECT_EQ(offsetof(ks_worker, fini_argument), 72U);
    EXPECT_EQ(offsetof(ks_worker, queue), 80U);
    EXPECT_EQ(offsetof(ks_queue, type), 0U);
    EXPECT_EQ(offsetof(ks_queue, sockfd), 4U);

    EXPECT_EQ(offsetof(ks_epoll, magic), 0U);
    EXPECT_EQ(offsetof(ks_epoll, fd), 4U);
    EXPECT_EQ(sizeof(ks_epoll), 8U);
}

// A whole conversation without a line of the library on the caller's side.
TEST(WireTest, ConversationOfACaller) {
    const support::service one("abc", 5, 1, support::echo);
    const descriptor caller(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/var/run/ks/A9993E36.sock");
    ASSERT_EQ(connect(caller.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

    unsigned char bytes[300];
    memset(bytes, 0xAA, sizeof(bytes));
    ASSERT_EQ(recv(caller.get(), bytes, 259, MSG_WAITALL), 259);
    EXPECT_EQ(bytes[0], 7);
    for (int i = 1; i < 259; ++i) {
        ASSERT_EQ(bytes[i], 0) << i;
    }

    memset(bytes, 0, sizeof(bytes));
    bytes[0] = 8;
    bytes[1] = 1;
    memcpy(bytes + 2, "get_it", 6);
    ASSERT_EQ(send(caller.get(), bytes, 259, 0), 259);
    const descriptor memory = support::memory_file("{\"a\":1}");
    const descriptor extra = support::memory_file("E");
    for (const int fd : {memory.get(), extra.get()}) {
        unsigned char control[24] = {20, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
        memcpy(control + 16, &fd, 4);
        char byte = 0x55;
        iovec data = {&byte, 1};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = 20;
        ASSERT_EQ(sendmsg(caller.get(), &message, 0), 1);
    }

    memset(bytes, 0xAA, sizeof(bytes));
    ASSERT_EQ(recv(caller.get(), bytes, 300, MSG_WAITALL), 259) << "the reply, then the end";
    EXPECT_EQ(bytes[0], 9);
    for (int i = 1; i < 259; ++i) {
        ASSERT_EQ(bytes[i], 0) << i;
    }
    char reply[64] = {};
    ASSERT_GT(pread(memory.get(), reply, sizeof(reply) - 1, 0), 0);
    EXPECT_STREQ(reply, "get_it|{\"a\":1}|E");
}

TEST(WireTest, BusyAndPausedAreWholeDirectives) {
    support::service one(5, 1, support::echo);
    ks_pause(one.handle());
    const support::raw_caller caller(one.path());
    unsigned char bytes[300];
    ASSERT_EQ(recv(caller.fd(), bytes, sizeof(bytes), MSG_WAITALL), 259);
    EXPECT_EQ(bytes[0], 4);
    for (int i = 1; i < 259; ++i) {
        ASSERT_EQ(bytes[i], 0) << i;
    }
}

// ---- The link between producer and consumer, seen from a process consumer, which holds its end as descriptor 3.

int forge(const char* command, ks_io* io, int) {
    unsigned char bytes[259] = {};
    bytes[0] = (unsigned char)strtol(command, nullptr, 10);
    const size_t index = 1000;
    memcpy(bytes + 2, &index, sizeof(index));
    (void)!write(3, bytes, sizeof(bytes));
    support::answer(io, "forged");
    return 0;
}

// An index beyond the table, directives that are no consumer's, and echoes of numbers that are not in transit.
TEST(WireTest, ProducerIgnoresWhatMeansNothingToIt) {
    const support::service one(3, 2, forge);
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "1", "", &reply), 0U);
    const auto before = support::settled_descriptors();
    for (const char* type : {"1", "2", "3", "4", "5", "6", "7", "8", "9", "200"}) {
        ASSERT_EQ(support::call(one.name(), type, "", &reply), 0U) << type;
        EXPECT_EQ(reply, "forged");
    }
    EXPECT_TRUE(support::eventually([&] { return support::open_descriptors().size() == before; }));
}

int echo_of_the_listening_socket(const char* command, ks_io* io, int) {
    unsigned char bytes[259] = {6};
    const auto number = (int32_t)strtol(command, nullptr, 10);
    memcpy(bytes + 2, &number, sizeof(number));
    (void)!write(3, bytes, sizeof(bytes));
    support::answer(io, "forged");
    return 0;
}

TEST(WireTest, EchoClosesNothingThatWasNotHandedOver) {
    const support::service one(3, 1, echo_of_the_listening_socket);
    const descriptor mine(fcntl(0, F_DUPFD_CLOEXEC, 500));
    std::string reply;
    ASSERT_EQ(support::call(one.name(), std::to_string(mine.get()).c_str(), "", &reply), 0U);
    ASSERT_EQ(support::call(one.name(), "0", "", &reply), 0U);
    ASSERT_EQ(support::call(one.name(), std::to_string(one.handle()->worker[1].sockfd[1]).c_str(), "", &reply), 0U);
    ASSERT_EQ(support::call(one.name(), "0", "", &reply), 0U);
    EXPECT_NE(fcntl(mine.get(), F_GETFD), -1);
    EXPECT_NE(fcntl(0, F_GETFD), -1);
}

} // namespace
