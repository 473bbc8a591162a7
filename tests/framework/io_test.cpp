// The message object on its own.
#include "framework_support.h"
#include "kservice.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

namespace {

using support::descriptor;

struct freer {
    void operator()(ks_io* io) const { ks_io_free(io); }
};
using unique_io = std::unique_ptr<ks_io, freer>;

unique_io make() {
    return unique_io(ks_io_create());
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(IoTest, FreshObjectIsEmpty) {
    const unique_io io = make();
    EXPECT_EQ(memcmp(io.get(), "-OIk", 4), 0);
    EXPECT_EQ(io->memfd, -1);
    EXPECT_EQ(io->sockfd, -1);
    EXPECT_EQ(io->passfd, -1);
    EXPECT_EQ(io->userdata, nullptr);
    EXPECT_EQ(io->shared_data, nullptr);
    EXPECT_EQ(io->shared_size, 0U);
    EXPECT_EQ(ks_io_pid(io.get()), 0);
    EXPECT_EQ(ks_io_uid(io.get()), 0U);
    EXPECT_EQ(ks_io_gid(io.get()), 0U);
}

TEST(IoTest, ReadOfAFreshObjectGivesNothing) {
    const unique_io io = make();
    size_t size = 77;
    EXPECT_EQ(ks_io_read(io.get(), &size), nullptr);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(ks_io_read(io.get(), nullptr), nullptr);
    EXPECT_EQ(io->memfd, -1) << "reading makes no file";
}

TEST(IoTest, SizeAndSyncDoNothingWithoutAFile) {
    const unique_io io = make();
    EXPECT_EQ(ks_io_size(io.get()), 0U);
    ks_io_sync(io.get());
    EXPECT_EQ(io->memfd, -1);
    EXPECT_EQ(io->shared_data, nullptr);
}

TEST(IoTest, WriteThenReadGivesTheBytes) {
    const unique_io io = make();
    EXPECT_EQ(ks_io_write(io.get(), "hello", 5), 5);
    EXPECT_EQ(io->shared_data, nullptr) << "writing does not map";
    size_t size = 0;
    const char* text = static_cast<const char*>(ks_io_read(io.get(), &size));
    ASSERT_EQ(size, 5U);
    EXPECT_EQ(std::string(text, size), "hello");
    EXPECT_EQ(ks_io_write(io.get(), " world", 6), 6);
    text = static_cast<const char*>(ks_io_read(io.get(), &size));
    EXPECT_EQ(std::string(text, size), "hello world") << "the read maps the file as it is now";
    EXPECT_EQ(io->shared_size, 11U);
}

TEST(IoTest, ReallocZeroEmptiesAndRewinds) {
    const unique_io io = make();
    ks_io_write(io.get(), "request", 7);
    ASSERT_NE(ks_io_read(io.get(), nullptr), nullptr);
    ks_io_realloc(io.get(), 0);
    EXPECT_EQ(io->shared_data, nullptr);
    EXPECT_EQ(io->shared_size, 0U);
    EXPECT_EQ(ks_io_size(io.get()), 0U);
    EXPECT_EQ(ks_io_printf(io.get(), "%s-%d", "ab", 12), 5);
    size_t size = 0;
    const char* text = static_cast<const char*>(ks_io_read(io.get(), &size));
    EXPECT_EQ(std::string(text, size), "ab-12");
}

TEST(IoTest, PrintsTextsOfAnyLength) {
    const unique_io io = make();
    for (const int length : {0, 1, BUFSIZ - 1, BUFSIZ, BUFSIZ + 1, 100 * BUFSIZ}) {
        const std::string text((size_t)length, 'x');
        ks_io_realloc(io.get(), 0);
        EXPECT_EQ(ks_io_printf(io.get(), "%s", text.c_str()), length);
        size_t size = 0;
        const auto* data = static_cast<const char*>(ks_io_read(io.get(), &size));
        EXPECT_EQ(std::string(data == nullptr ? "" : data, size), text) << length;
    }
}

TEST(IoTest, PrintReportsAFileThatIsFull) {
    const unique_io io = make();
    io->memfd = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(io->memfd, 0);
    for (const size_t length : {(size_t)1, (size_t)BUFSIZ}) {
        EXPECT_EQ(ks_io_printf(io.get(), "%s", std::string(length, 'x').c_str()), -1) << length;
    }
}

TEST(IoTest, ReallocMapsZeroedBytesAndAppendsBehindThem) {
    const unique_io io = make();
    ks_io_realloc(io.get(), 4);
    ASSERT_NE(io->shared_data, nullptr);
    EXPECT_EQ(io->shared_size, 4U);
    EXPECT_EQ(memcmp(io->shared_data, "\0\0\0\0", 4), 0);
    EXPECT_EQ(ks_io_write(io.get(), "xy", 2), 2);
    EXPECT_EQ(io->shared_size, 4U);
    EXPECT_EQ(ks_io_size(io.get()), 6U);
    size_t size = 0;
    const char* text = static_cast<const char*>(ks_io_read(io.get(), &size));
    EXPECT_EQ(std::string(text, size), std::string("\0\0\0\0xy", 6));
}

TEST(IoTest, MappingIsSharedAndWritable) {
    const unique_io io = make();
    ks_io_realloc(io.get(), 3);
    memcpy(io->shared_data, "abc", 3);
    char bytes[3];
    EXPECT_EQ(pread(io->memfd, bytes, 3, 0), 3);
    EXPECT_EQ(memcmp(bytes, "abc", 3), 0);
}

TEST(IoTest, SyncMapsTheFileThatTheObjectHasNowEvenOneOfTheSameSize) {
    const unique_io io = make();
    const unique_io other = make();
    ASSERT_EQ(ks_io_write(io.get(), "first", 5), 5);
    ASSERT_EQ(ks_io_write(other.get(), "other", 5), 5);
    size_t size = 0;
    ASSERT_EQ(std::string(static_cast<const char*>(ks_io_read(io.get(), &size)), 5), "first");
    std::swap(io->memfd, other->memfd);
    ks_io_sync(io.get());
    EXPECT_EQ(std::string(static_cast<const char*>(io->shared_data), io->shared_size), "other");
}

TEST(IoTest, SyncPutsTheOffsetAtTheEnd) {
    const unique_io io = make();
    ks_io_write(io.get(), "12345", 5);
    lseek(io->memfd, 0, SEEK_SET);
    ks_io_sync(io.get());
    EXPECT_EQ(lseek(io->memfd, 0, SEEK_CUR), 5);
    EXPECT_EQ(io->shared_size, 5U);
    ASSERT_EQ(ftruncate(io->memfd, 0), 0);
    ks_io_sync(io.get());
    EXPECT_EQ(io->shared_data, nullptr);
    EXPECT_EQ(io->shared_size, 0U);
}

TEST(IoTest, MemoryFileIsNamedCloseOnExecAndAboveStandardStreams) {
    const unique_io io = make();
    const int fd = ks_io_fileno(io.get());
    EXPECT_EQ(fd, io->memfd);
    EXPECT_GE(fd, 3);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    char target[128] = {};
    ASSERT_GT(readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target) - 1), 0);
    EXPECT_STREQ(target, "/memfd:kservice (deleted)");
}

TEST(IoTest, MemoryFileNeverTakesANumberBelowThree) {
    for (const int closed : {0, 1, 2}) {
        EXPECT_EXIT(
            {
                close(closed);
                close(STDERR_FILENO);
                ks_io* io = ks_io_create();
                const int fd = ks_io_fileno(io);
                const bool good = fd >= 3 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0 && !is_open(closed);
                ks_io_free(io);
                _exit(good ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << closed;
    }
}

TEST(IoTest, FreeClosesWhatItOwnsAndLeavesPassfd) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const descriptor other(pair[1]);
    const descriptor passed(dup(pair[1]));
    ks_io* io = ks_io_create();
    const int memfd = ks_io_fileno(io);
    io->sockfd = pair[0];
    io->passfd = passed.get();
    ks_io_free(io);
    EXPECT_FALSE(is_open(memfd));
    EXPECT_FALSE(is_open(pair[0]));
    EXPECT_TRUE(is_open(passed.get()));
}

TEST(IoTest, FreeKeepsErrno) {
    ks_io* io = ks_io_create();
    io->sockfd = 4444; // closed already
    errno = ENOTTY;
    ks_io_free(io);
    EXPECT_EQ(errno, ENOTTY);
}

TEST(IoTest, FreeUnmaps) {
    ks_io* io = ks_io_create();
    ks_io_realloc(io, 4096);
    void* page = io->shared_data;
    ks_io_free(io);
    unsigned char resident = 0;
    EXPECT_EQ(mincore(page, 4096, &resident), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(IoTest, DuplicatesReferToTheSameFile) {
    const unique_io io = make();
    const descriptor one(ks_io_dup(io.get()));
    ASSERT_GE(one.get(), 0);
    EXPECT_EQ(write(one.get(), "abc", 3), 3);
    EXPECT_EQ(ks_io_size(io.get()), 3U);
    const descriptor two(ks_io_dup2(io.get(), 900));
    EXPECT_EQ(two.get(), 900);
    EXPECT_EQ(fcntl(900, F_GETFD), 0);
    const descriptor three(ks_io_dup3(io.get(), 901, O_CLOEXEC));
    EXPECT_EQ(three.get(), 901);
    EXPECT_EQ(fcntl(901, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(ks_io_dup2(io.get(), -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(ks_io_dup3(io.get(), io->memfd, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

// KEPT: these never look at the magic.
TEST(IoTest, SizeFilenoDuplicatesAndStreamsDoNotCheckTheMagic) {
    ks_io foreign = {};
    foreign.magic = 0xDEADBEEF;
    foreign.memfd = -1;
    foreign.sockfd = -1;
    EXPECT_EQ(ks_io_size(&foreign), 0U);
    ks_io_sync(&foreign);
    const descriptor file(ks_io_fileno(&foreign));
    EXPECT_GE(file.get(), 3);
    const descriptor one(ks_io_dup(&foreign));
    EXPECT_GE(one.get(), 0);
    const descriptor two(ks_io_dup2(&foreign, 910));
    EXPECT_EQ(two.get(), 910);
    const descriptor three(ks_io_dup3(&foreign, 911, 0));
    EXPECT_EQ(three.get(), 911);
    FILE* stream = ks_io_fopen(&foreign, "r");
    ASSERT_NE(stream, nullptr);
    stream = ks_io_freopen(&foreign, "w", stream);
    ASSERT_NE(stream, nullptr);
    fclose(stream);
}

TEST(IoTest, SpliceMovesFromAPipeWithoutBlocking) {
    const unique_io io = make();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const descriptor read_end(ends[0]);
    const descriptor write_end(ends[1]);
    EXPECT_EQ(ks_io_splice(io.get(), read_end.get(), 10), -1) << "an empty pipe does not block";
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(write(write_end.get(), "abcdef", 6), 6);
    EXPECT_EQ(ks_io_splice(io.get(), read_end.get(), 4), 4);
    EXPECT_EQ(support::text_of(io.get()), "abcd");
    EXPECT_EQ(ks_io_splice(io.get(), io->memfd, 4), -1) << "the result of splice() as it is";
}

TEST(IoTest, StreamsStandOnTheSameFile) {
    const unique_io io = make();
    FILE* stream = ks_io_fopen(io.get(), "w");
    ASSERT_NE(stream, nullptr);
    fputs("from a stream", stream);
    fclose(stream);
    EXPECT_EQ(support::text_of(io.get()), "from a stream");
    EXPECT_EQ(lseek(io->memfd, 0, SEEK_CUR), 0) << "an independent stream has its own offset";

    stream = fopen("/dev/null", "w");
    ASSERT_NE(stream, nullptr);
    stream = ks_io_freopen(io.get(), "a", stream);
    ASSERT_NE(stream, nullptr);
    fputs("!", stream);
    fclose(stream);
    EXPECT_EQ(support::text_of(io.get()), "from a stream!");
    EXPECT_EQ(ks_io_fopen(io.get(), "?"), nullptr);
}

TEST(IoTest, UserdataIsTheOwners) {
    const unique_io io = make();
    int mine = 0;
    EXPECT_EQ(ks_io_get(io.get()), nullptr);
    ks_io_set(io.get(), &mine);
    EXPECT_EQ(ks_io_get(io.get()), &mine);
    ks_io_set(io.get(), nullptr);
    EXPECT_EQ(ks_io_get(io.get()), nullptr);
}

TEST(IoTest, JsonWriterReportsZeroOnlyWhenAllWasWritten) {
    const unique_io io = make();
    EXPECT_EQ(ks_json_write_io("{}", 2, io.get()), 0);
    EXPECT_EQ(support::text_of(io.get()), "{}");
    const unique_io read_only = make();
    read_only->memfd = open("/dev/null", O_RDONLY);
    EXPECT_EQ(ks_json_write_io("abc", 3, read_only.get()), -4) << "-1 of write() minus the length";
}

TEST(IoTest, WithoutACallerAlwaysAlive) {
    const unique_io io = make();
    EXPECT_EQ(ks_io_alive(io.get()), 1U);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    io->sockfd = pair[0];
    close(pair[1]);
    EXPECT_EQ(ks_io_alive(io.get()), 1U) << "pid 0: the socket is not looked at";
}

TEST(IoTest, AliveWhileTheCallerIsSilentAndThere) {
    const unique_io io = make();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    descriptor caller(pair[1]);
    io->sockfd = pair[0];
    io->cred.pid = getpid();
    EXPECT_EQ(ks_io_alive(io.get()), 1U);
    ASSERT_EQ(send(caller.get(), "x", 1, 0), 1);
    EXPECT_EQ(ks_io_alive(io.get()), 0U) << "it said something unexpected";
    char byte = 0;
    ASSERT_EQ(recv(io->sockfd, &byte, 1, 0), 1);
    EXPECT_EQ(ks_io_alive(io.get()), 1U);
    caller.reset();
    EXPECT_EQ(ks_io_alive(io.get()), 0U) << "it hung up";
    close(io->sockfd);
    EXPECT_EQ(ks_io_alive(io.get()), 0U) << "not even a descriptor";
    io->sockfd = -1;
    EXPECT_EQ(ks_io_alive(io.get()), 0U);
}

TEST(IoTest, AliveLooksAtDescriptorsAbove1023) {
    const unique_io io = make();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    descriptor caller(pair[1]);
    io->sockfd = fcntl(pair[0], F_DUPFD_CLOEXEC, 5000);
    close(pair[0]);
    ASSERT_GE(io->sockfd, 5000);
    io->cred.pid = getpid();
    EXPECT_EQ(ks_io_alive(io.get()), 1U);
    caller.reset();
    EXPECT_EQ(ks_io_alive(io.get()), 0U);
}

// A caller's file can become unusable between any two steps; the program goes on, that caller's connection does not.
TEST(IoTest, CallersFileThatCannotBeResizedIsLetGo) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const descriptor caller(pair[1]);
    descriptor file = support::memory_file("text");
    ASSERT_EQ(fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
    const unique_io io = make();
    io->memfd = dup(file.get());
    io->sockfd = pair[0];
    io->cred.pid = getpid();
    ks_io_realloc(io.get(), 0);
    EXPECT_EQ(ks_io_size(io.get()), 0U);
    EXPECT_EQ(ks_io_printf(io.get(), "answer"), 6);
    EXPECT_EQ(support::text_of(io.get()), "answer");
    char byte = 0;
    EXPECT_EQ(recv(caller.get(), &byte, 1, 0), 0) << "its connection has ended";
    EXPECT_EQ(pread(file.get(), &byte, 1, 0), 1);
    EXPECT_EQ(byte, 't') << "its file is as it was";
}

TEST(IoTest, CallersFileGrownBeyondTheAddressSpaceIsLetGo) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const descriptor caller(pair[1]);
    const descriptor file = support::memory_file("text");
    const unique_io io = make();
    io->memfd = dup(file.get());
    io->sockfd = pair[0];
    io->cred.pid = getpid();
    ASSERT_EQ(ftruncate(file.get(), (off_t)1 << 62), 0);
    size_t size = 1;
    EXPECT_EQ(ks_io_read(io.get(), &size), nullptr);
    EXPECT_EQ(size, 0U);
    ks_io_sync(io.get());
    ks_io_realloc(io.get(), 8);
    EXPECT_EQ(io->shared_size, 8U);
    char byte = 0;
    EXPECT_EQ(recv(caller.get(), &byte, 1, 0), 0);
}

// Each of these marks says that somebody else has, or had, a hand on the file: a caller that waits, one whose
// credentials are known, a request that has been made.
TEST(IoTest, FileThatSomebodyElseHadAHandOnIsLetGo) {
    for (const char* mark : {"connection", "credentials", "request"}) {
        const unique_io io = make();
        ASSERT_EQ(ks_io_write(io.get(), "text", 4), 4);
        ASSERT_EQ(ftruncate(io->memfd, (off_t)1 << 62), 0);
        descriptor caller;
        if (strcmp(mark, "connection") == 0) {
            int pair[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
            io->sockfd = pair[0];
            caller.reset(pair[1]);
        } else if (strcmp(mark, "credentials") == 0) {
            io->cred.pid = getpid();
        } else {
            io->command[0] = 'c';
        }
        EXPECT_EQ(ks_io_read(io.get(), nullptr), nullptr) << mark;
        EXPECT_EQ(io->memfd, -1) << mark;
        EXPECT_EQ(ks_io_printf(io.get(), "private"), 7);
    }
}

std::atomic<unsigned> alarms{0};

TEST(IoTest, AliveIsNotMistakenBySignals) {
    alarms = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { ++alarms; };
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    const itimerval often = {{0, 100}, {0, 100}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    const unique_io io = make();
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const descriptor caller(pair[1]);
    io->sockfd = pair[0];
    io->cred.pid = getpid();
    bool alive = true;
    while (alive && alarms < 2000) {
        alive = ks_io_alive(io.get()) == 1;
    }
    EXPECT_TRUE(alive) << "after " << alarms << " signals";
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(IoTest, SetFdCloexecWritesStatusFlagsAndLeavesTheDescriptorFlag) {
    const descriptor file = support::memory_file();
    ASSERT_EQ(fcntl(file.get(), F_SETFD, 0), 0);
    const int status = fcntl(file.get(), F_GETFL);
    EXPECT_EQ(set_fd_cloexec(file.get()), 1U);
    EXPECT_EQ(fcntl(file.get(), F_GETFD), 0) << "KEPT: not the close-on-exec flag";
    EXPECT_EQ(fcntl(file.get(), F_GETFL), status);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const descriptor read_end(ends[0]);
    const descriptor write_end(ends[1]);
    ASSERT_EQ(fcntl(read_end.get(), F_GETFL), 0);
    EXPECT_EQ(set_fd_cloexec(read_end.get()), 1U) << "no flag at all is no error";
    ASSERT_EQ(fcntl(write_end.get(), F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(set_fd_cloexec(write_end.get()), 1U);
    EXPECT_EQ(fcntl(write_end.get(), F_GETFL), O_WRONLY | O_NONBLOCK);
    EXPECT_EQ(set_fd_cloexec(-1), 0U);
    const descriptor name_only(open("/", O_PATH | O_CLOEXEC));
    EXPECT_EQ(set_fd_cloexec(name_only.get()), 0U) << "its flags can be read, but not written";
}

} // namespace
