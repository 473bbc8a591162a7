// The consumer: what it accepts from callers, what the callback gets, and whom it drops.
#include "framework_support.h"
#include "kservice.h"
#include "privileges.h"
#include "silent_file.h"
#include "stopped_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/fuse.h>
#include <linux/sockios.h>
#include <string>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using support::descriptor;
using support::echo;
using support::eventually;
using support::make_record;
using support::memory_file;
using support::raw_caller;
using support::service;

std::string contents(const descriptor& file) {
    char bytes[4096];
    const ssize_t got = pread(file.get(), bytes, sizeof(bytes), 0);
    return {bytes, got < 0 ? 0 : (size_t)got};
}

size_t lines_of(const std::string& path) {
    std::ifstream file(path);
    return (size_t)std::count(std::istreambuf_iterator<char>(file), {}, '\n');
}

size_t threads_that_block(int signum) {
    size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("SigBlk:", 0) == 0) {
                count += std::stoull(line.substr(7), nullptr, 16) >> (signum - 1) & 1;
            }
        }
    }
    return count;
}

// A service of one consumer: whatever keeps that busy would be noticed by the next call.
class ConsumerTest : public testing::Test {
protected:
    void expect_it_serves() {
        std::string reply;
        EXPECT_EQ(support::call(one_.name(), "still", "there", &reply), 0U);
        EXPECT_EQ(reply, "still|there|none");
    }
    raw_caller invited_caller() {
        raw_caller caller(one_.path());
        EXPECT_TRUE(caller.invited());
        return caller;
    }
    // Sends a request with `fds` for the memory file's message; true = it was dropped without an answer.
    bool dropped_for(const std::vector<int>& fds) {
        const raw_caller caller = invited_caller();
        EXPECT_TRUE(caller.send(make_record(8, 0, "c")) && caller.send_fds(fds));
        return caller.hung_up();
    }
    service one_{5, 1, echo};
};

TEST_F(ConsumerTest, AnswersARequest) {
    const raw_caller caller = invited_caller();
    const descriptor file = memory_file("text");
    EXPECT_TRUE(caller.request("name", file.get()));
    EXPECT_EQ(contents(file), "name|text|none");
    EXPECT_TRUE(caller.hung_up()) << "one request per connection";
}

TEST_F(ConsumerTest, HandsOverTheExtraDescriptor) {
    const raw_caller caller = invited_caller();
    const descriptor file = memory_file("text");
    const descriptor extra = memory_file("extra");
    ASSERT_TRUE(caller.send(make_record(8, 1, "name")) && caller.send_fds({file.get()}) &&
                caller.send_fds({extra.get()}));
    EXPECT_EQ(caller.receive(), make_record(9));
    EXPECT_EQ(contents(file), "name|text|extra");
}

// No number stands for a descriptor that has not come: least of all 0, which is somebody's.
TEST_F(ConsumerTest, PromisedDescriptorsThatNeverComeAreNoneOfOurs) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const descriptor one(ends[0]);
    const descriptor other(ends[1]);
    ASSERT_EQ(dup2(one.get(), 0), 0); // a socket would be closed at once
    const descriptor file = memory_file("text");
    for (const bool extra : {false, true}) {
        raw_caller caller = invited_caller();
        EXPECT_TRUE(caller.send(make_record(8, extra ? 1 : 0, "c")) && (!extra || caller.send_fds({file.get()})));
        ASSERT_TRUE(eventually([&] { // it has been read: what is promised is waited for
            int unread = -1;
            return ioctl(caller.fd(), SIOCOUTQ, &unread) == 0 && unread == 0;
        }));
        caller.close();
        expect_it_serves();
        EXPECT_NE(fcntl(0, F_GETFD), -1) << (extra ? "the extra descriptor" : "the memory file");
    }
}

TEST_F(ConsumerTest, WaitsForDescriptorsThatComeLate) {
    const raw_caller caller = invited_caller();
    const descriptor file = memory_file("text");
    const descriptor extra = memory_file("extra");
    ASSERT_TRUE(caller.send(make_record(8, 1, "name")));
    std::this_thread::sleep_for(std::chrono::milliseconds(30)); // lateness itself
    ASSERT_TRUE(caller.send_fds({file.get()}));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ASSERT_TRUE(caller.send_fds({extra.get()}));
    EXPECT_EQ(caller.receive(), make_record(9));
    EXPECT_EQ(contents(file), "name|text|extra");
}

TEST(ConsumerDescriptorTest, WithoutAnExtraDescriptorTheCallbackGetsMinusOne) {
    for (const unsigned mode : {3U, 5U}) {
        const service one(mode, 1, [](const char*, ks_io* io, int fd) {
            support::answer(io, std::to_string(fd));
            return 0;
        });
        std::string reply;
        ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
        EXPECT_EQ(reply, "-1") << mode;
    }
}

TEST_F(ConsumerTest, OtherFlagBitsPromiseNothing) {
    const raw_caller caller = invited_caller();
    const descriptor file = memory_file();
    ASSERT_TRUE(caller.send(make_record(8, 0xFE, "c")) && caller.send_fds({file.get()}));
    EXPECT_EQ(caller.receive(), make_record(9));
    EXPECT_EQ(contents(file), "c||none");
}

TEST_F(ConsumerTest, LongCommandIsCutTo256Characters) {
    const raw_caller caller = invited_caller();
    const descriptor file = memory_file();
    EXPECT_TRUE(caller.request(std::string(257, 'c'), file.get()));
    EXPECT_EQ(contents(file), std::string(256, 'c') + "||none");
}

TEST_F(ConsumerTest, EmptyCommandAndEmptyFileAreServed) {
    const raw_caller caller = invited_caller();
    const descriptor file = memory_file();
    EXPECT_TRUE(caller.request("", file.get()));
    EXPECT_EQ(contents(file), "||none");
}

TEST_F(ConsumerTest, CallerThatGoesBeforeItsRequestFreesTheConsumer) {
    for (int i = 0; i < 50; ++i) {
        raw_caller caller = invited_caller();
        caller.close();
    }
    expect_it_serves();
}

TEST_F(ConsumerTest, CallerThatIsGoneWhenInvitedFreesTheConsumer) {
    for (int i = 0; i < 200; ++i) {
        const raw_caller caller(one_.path());
    }
    expect_it_serves();
}

const support::shared<std::atomic<int>> runs;
int count_runs(const char* command, ks_io* io, int fd) {
    ++*runs;
    return echo(command, io, fd);
}

TEST(ConsumerHangUpTest, CallerThatIsGoneAfterItsRequestIsNotServed) {
    const service one(3, 1, count_runs);
    const descriptor file = memory_file("text");
    *runs = 0;
    for (int i = 0; i < 5; ++i) {
        raw_caller caller(one.path());
        ASSERT_TRUE(caller.invited());
        const stopped_process worker(support::entry_of(one.handle(), 0).id.pid);
        ASSERT_TRUE(caller.send(make_record(8)) && caller.send_fds({file.get()}));
        caller.close();
    }
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_EQ(*runs, 1);
    EXPECT_EQ(contents(file), "text");
}

// Half of the connection is enough for the reply; ks_io_alive() counts such a caller as gone.
TEST(ConsumerHangUpTest, CallerThatOnlySaysNothingMoreIsServed) {
    const service one(3, 1, [](const char*, ks_io* io, int) {
        ks_reply(io);
        ks_io_free(io);
        return 0;
    });
    for (int i = 0; i < 5; ++i) {
        const descriptor file = memory_file("text");
        const raw_caller caller(one.path());
        ASSERT_TRUE(caller.invited());
        {
            const stopped_process worker(support::entry_of(one.handle(), 0).id.pid);
            ASSERT_TRUE(caller.send(make_record(8, 0, "c")) && caller.send_fds({file.get()}));
            caller.shut_write();
        }
        EXPECT_EQ(caller.receive(), make_record(9));
    }
}

void wait_at_the_gate(void* gate) {
    static_cast<const support::gate*>(gate)->pass();
}

int bytes_in(int fd) {
    int count = -1;
    (void)ioctl(fd, FIONREAD, &count);
    return count;
}

// A link that is down in both directions is not read any more, whatever the producer said on it.
TEST(ConsumerHangUpTest, CallerOnALinkThatHungUpIsNotInvited) {
    support::gate here;
    const service one(5, 1, echo, [&](ks_handle* handle) { ks_worker_init(handle, wait_at_the_gate, &here); });
    ASSERT_TRUE(here.await());
    const raw_caller caller(one.path());
    const ks_worker entry = support::entry_of(one.handle(), 0);
    ASSERT_TRUE(eventually([&] { return bytes_in(entry.sockfd[0]) == 260; })) << "transfer and the descriptor's byte";
    ASSERT_EQ(shutdown(entry.sockfd[1], SHUT_RDWR), 0);
    here.open();
    EXPECT_TRUE(caller.hung_up());
}

// ---- Signals that interrupt a consumer

std::atomic<pid_t> consumer_tid = 0;
std::atomic<int> interruptions = 0;

TEST(ConsumerSignalTest, InterruptedConsumerGoesOnWaiting) {
    struct sigaction action = {};
    action.sa_handler = [](int) { ++interruptions; };
    sigaction(SIGUSR1, &action, nullptr);
    const service one(5, 1, echo, [](ks_handle* handle) {
        ks_worker_init(
            handle, [](void*) { consumer_tid = gettid(); }, nullptr);
    });
    ASSERT_TRUE(eventually([] { return consumer_tid != 0; }));
    const auto interrupt = [&] {
        const int before = interruptions;
        EXPECT_TRUE(eventually([] { return support::is_asleep(consumer_tid); }));
        pthread_kill(support::entry_of(one.handle(), 0).id.tid, SIGUSR1);
        EXPECT_TRUE(eventually([before] { return interruptions > before; }));
    };
    for (int i = 0; i < 5; ++i) {
        interrupt(); // that waits for a caller
        const descriptor file = memory_file("text");
        const descriptor extra = memory_file("extra");
        const raw_caller caller(one.path());
        ASSERT_TRUE(caller.invited());
        interrupt(); // that waits for its request
        ASSERT_TRUE(caller.send(make_record(8, 1, "c")));
        interrupt(); // that waits for the memory file
        ASSERT_TRUE(caller.send_fds({file.get()}));
        interrupt(); // that waits for the extra descriptor
        ASSERT_TRUE(caller.send_fds({extra.get()}));
        EXPECT_EQ(caller.receive(), make_record(9));
        EXPECT_EQ(contents(file), "c|text|extra");
    }
    (void)signal(SIGUSR1, SIG_DFL);
}

TEST(ConsumerSignalTest, InterruptedReadOfTheLinkIsTriedAgain) {
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            support::supervised_calls calls({SYS_recvmsg});
            const service one(5, 1, echo);
            int failures = 0;
            for (int i = 0; i < 5; ++i) {
                calls.fail_next(SYS_recvmsg, support::entry_of(one.handle(), 0).sockfd[0], EINTR);
                std::string reply;
                failures += support::call(one.name(), "c", "t", &reply) != 0 || reply != "c|t|none" || !calls.done();
            }
            _exit(failures);
        },
        testing::ExitedWithCode(0), "");
}

// One that said that it is ready, while it has a caller, would get a second one, who would wait for the first.
TEST(ConsumerSignalTest, InterruptedReadOfTheLinkIsNoReport) {
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            support::supervised_calls calls({SYS_recvmsg});
            const service one(5, 1, echo);
            const ks_worker entry = support::entry_of(one.handle(), 0);
            const size_t sockets = support::open_sockets();
            calls.fail_next(SYS_recvmsg, entry.sockfd[0], EINTR);
            const raw_caller first(one.path());
            bool good = first.invited() && calls.done();
            good = good && eventually([&] { return support::open_sockets() == sockets + 2; }); // echoed
            const raw_caller second(one.path());
            good = good && eventually([&] { return support::open_sockets() == sockets + 4; });
            const raw_caller third(one.path()); // accepted after the second one has been dealt with
            good = good && eventually([&] { return support::open_sockets() == sockets + 6; });
            _exit(good && bytes_in(entry.sockfd[0]) == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// It would never hear of anything, the stop included; without it the service ends.
TEST(ConsumerLinkTest, WorkerThatCannotWaitForItsLinkEnds) {
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            const support::temp_dir dir;
            ks_handle* handle = ks_create(("@" + dir.file("s")).c_str(), KS_PROCESS_MODE, 1, echo);
            ks_worker_init(
                handle, [](void*) { support::fail_system_call(SYS_epoll_ctl, ENOSPC, EPOLL_CTL_ADD); }, nullptr);
            ks_start(handle);
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}

// ---- What callers say instead of a request

// Each type but 8, on the caller's connection: 6 and the stop are the producer's words only.
TEST_F(ConsumerTest, EveryOtherDirectiveOfACallerDropsIt) {
    const descriptor file = memory_file("text");
    for (int type = 0; type < 256; ++type) {
        if (type == 8) {
            continue;
        }
        const raw_caller caller = invited_caller();
        const int32_t number = 3;
        const std::string data(reinterpret_cast<const char*>(&number), sizeof(number));
        ASSERT_TRUE(caller.send(make_record((unsigned char)type, 1, data)));
        (void)caller.send_fds({file.get()}); // may have been dropped already
        EXPECT_TRUE(caller.hung_up()) << type;
    }
    expect_it_serves();
}

TEST_F(ConsumerTest, ShortDirectiveDropsTheCaller) {
    for (const size_t size : {1UL, 2UL, 258UL}) {
        const raw_caller caller = invited_caller();
        ASSERT_TRUE(caller.send_bytes(make_record(8, 0, "c").data(), size));
        EXPECT_TRUE(caller.hung_up()) << size;
    }
    expect_it_serves();
}

TEST_F(ConsumerTest, DataWithoutADescriptorDropsTheCaller) {
    EXPECT_TRUE(dropped_for({}));
    const raw_caller caller = invited_caller();
    const descriptor file = memory_file("text");
    ASSERT_TRUE(caller.send(make_record(8, 1, "c")) && caller.send_fds({file.get()}) && caller.send_fds({}));
    EXPECT_TRUE(caller.hung_up()) << "no extra one after it was promised";
    EXPECT_EQ(contents(file), "text") << "nothing was run";
    expect_it_serves();
}

// The end of what the caller says is no reason to wait on, whatever the last look at its connection brought.
TEST_F(ConsumerTest, CallerThatFallsSilentForGoodInsteadOfADescriptorIsDropped) {
    const raw_caller caller = invited_caller();
    ASSERT_TRUE(caller.send(make_record(8, 0, "c")));
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // lateness itself
    caller.shut_write();
    EXPECT_TRUE(caller.hung_up(std::chrono::seconds(20))) << "before its patience ends";
    expect_it_serves();
}

// A copy of the connection, as a child process would hold it, does not keep a caller that was refused waiting.
TEST_F(ConsumerTest, CopyOfTheConnectionDoesNotKeepARefusedCaller) {
    expect_it_serves();
    const descriptor no_file(open("/dev/null", O_RDWR | O_CLOEXEC));
    const descriptor huge = memory_file("text");
    ASSERT_EQ(ftruncate(huge.get(), (off_t)1 << 62), 0);
    const auto settled = support::settled_descriptors();
    for (const int memory : {no_file.get(), huge.get()}) {
        ASSERT_TRUE(eventually([&] { return support::open_descriptors().size() == settled; }));
        const auto before = support::open_descriptors();
        const raw_caller caller = invited_caller();
        // The producer's is closed.
        ASSERT_TRUE(eventually([&] { return support::open_descriptors().size() == settled + 2; }));
        std::vector<descriptor> copies;
        for (const int fd : support::open_descriptors()) {
            if (fd != caller.fd() && std::find(before.begin(), before.end(), fd) == before.end()) {
                copies.emplace_back(fcntl(fd, F_DUPFD_CLOEXEC, 3));
            }
        }
        ASSERT_EQ(copies.size(), 1U);
        ASSERT_TRUE(caller.send(make_record(8, 0, "c")) && caller.send_fds({memory}));
        EXPECT_TRUE(caller.hung_up());
    }
}

TEST_F(ConsumerTest, DescriptorsBeyondTheFirstAreClosed) {
    expect_it_serves();
    const auto before = support::settled_descriptors();
    const descriptor file = memory_file("text");
    for (const size_t count : {2UL, 3UL, 64UL}) {
        const raw_caller caller = invited_caller();
        ASSERT_TRUE(caller.send(make_record(8, 0, "c")) && caller.send_fds(std::vector<int>(count, file.get())));
        EXPECT_EQ(caller.receive(), make_record(9)) << count;
    }
    // On the directive itself, where nobody asked for one.
    const raw_caller caller = invited_caller();
    ASSERT_TRUE(caller.send_fds({file.get()}, 259));
    EXPECT_TRUE(caller.hung_up());
    expect_it_serves();
    EXPECT_TRUE(eventually([&] { return support::open_descriptors().size() == before + 2; }));
}

int report_flags(const char*, ks_io* io, int fd) {
    support::answer(io, std::to_string(fcntl(io->memfd, F_GETFD)) + std::to_string(fcntl(io->sockfd, F_GETFD)) +
                            std::to_string(fcntl(fd, F_GETFD)));
    close(fd);
    return 0;
}

TEST(ConsumerDescriptorTest, ReceivedDescriptorsAreCloseOnExec) {
    for (const unsigned mode : {3U, 5U}) {
        const service one(mode, 1, report_flags);
        const descriptor extra = memory_file();
        std::string reply;
        ASSERT_EQ(support::call(one.name(), "c", "", &reply, extra.get()), 0U);
        EXPECT_EQ(reply, "111") << mode;
    }
}

int report_numbers(const char*, ks_io* io, int fd) {
    const bool above = io->memfd > 2 && io->sockfd > 2 && fd > 2;
    close(fd);
    support::answer(io, above ? "above" : "below");
    return 0;
}

TEST(ConsumerDescriptorTest, ReceivedDescriptorsStandAboveTheStandardStreams) {
    for (const int number : {0, 1, 2}) {
        EXPECT_EXIT(
            {
                const descriptor extra = memory_file();
                const service one(5, 1, report_numbers);
                close(number);
                close(STDERR_FILENO);
                std::string reply;
                const bool above = support::call(one.name(), "c", "", &reply, extra.get()) == 0 && reply == "above";
                const bool free = eventually([&] { return fcntl(number, F_GETFD) == -1; });
                _exit(above && free ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << number;
    }
}

int report_mask(const char*, ks_io* io, int) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    support::answer(io, sigismember(&mask, SIGTERM) == 0 ? "open" : "blocked");
    return 0;
}

// What a caller leaves to be closed is closed even when no thread can be made for that, and the worker is as before.
TEST(ConsumerDescriptorTest, RefusedDescriptorIsClosedWithoutAThreadToo) {
    EXPECT_EXIT(
        {
            const service one(5, 1, report_mask);
            std::string reply;
            bool good = support::call(one.name(), "c", "", &reply) == 0;
            const auto before = support::settled_descriptors();
            support::fail_system_call(SYS_clone3, EAGAIN);
            support::fail_system_call(SYS_clone, EAGAIN);
            {
                const raw_caller caller(one.path());
                good = good && caller.invited() && caller.send(make_record(8, 0, "c")) && caller.send_fds({1}) &&
                       caller.hung_up();
            }
            good = good && eventually([&] { return support::open_descriptors().size() == before; });
            good = good && support::call(one.name(), "c", "", &reply) == 0 && reply == "open";
            _exit(good ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// ---- Memory files on which the service's own steps would fail

TEST_F(ConsumerTest, FilesOfATmpfsAreWelcome) {
    const std::string path = "/dev/shm/ks-test-file";
    const descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_GE(file.get(), 0);
    unlink(path.c_str());
    ASSERT_EQ(write(file.get(), "text", 4), 4);
    const raw_caller caller = invited_caller();
    EXPECT_TRUE(caller.request("c", file.get()));
    EXPECT_EQ(contents(file), "c|text|none");
}

TEST_F(ConsumerTest, ReadWriteFilesOfOtherFileSystemsAreRefused) {
    char path[] = "/var/tmp/ks-XXXXXX";
    const descriptor disk(mkostemp(path, O_CLOEXEC));
    ASSERT_GE(disk.get(), 0);
    unlink(path);
    ASSERT_EQ(write(disk.get(), "text", 4), 4);
    const descriptor process(open("/proc/self/comm", O_RDWR | O_CLOEXEC));
    ASSERT_GE(process.get(), 0);
    for (const descriptor* each : {&disk, &process}) {
        ASSERT_EQ(fcntl(each->get(), F_GET_SEALS), -1);
        EXPECT_TRUE(dropped_for({each->get()}));
    }
    EXPECT_EQ(contents(disk), "text");
    EXPECT_EQ(lseek(disk.get(), 0, SEEK_CUR), 4) << "not even its offset was moved";
    expect_it_serves();
}

TEST_F(ConsumerTest, MemoryFileThatIsNotOpenForBothIsRefused) {
    const descriptor file = memory_file("text");
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    for (const int flags : {O_RDONLY, O_WRONLY, O_PATH}) {
        const descriptor half(open(path.c_str(), flags | O_CLOEXEC));
        ASSERT_GE(half.get(), 0);
        EXPECT_TRUE(dropped_for({half.get()})) << flags;
    }
    EXPECT_EQ(contents(file), "text");
    EXPECT_EQ(fcntl(file.get(), F_GET_SEALS), 0) << "refused before it was sealed";
    expect_it_serves();
}

// Its file system is asked nothing that the service would wait for: closing it asks, but nobody waits for that.
TEST_F(ConsumerTest, FileOfASilentFileSystemCostsItsCallerOnly) {
    const support::silent_file silent;
    if (silent.fd() < 0) {
        GTEST_SKIP() << "no FUSE to be had here";
    }
    expect_it_serves(); // its threads have come through their start, which blocks all signals
    const size_t deaf = threads_that_block(SIGTERM);
    ASSERT_TRUE(dropped_for({silent.fd()}));
    expect_it_serves();
    {
        const raw_caller caller = invited_caller();
        ASSERT_TRUE(caller.send(make_record(8, 1, "c")) && caller.send_fds({silent.fd()}) &&
                    caller.send_fds({silent.fd()}));
        ASSERT_TRUE(caller.hung_up()) << "as the extra descriptor, too";
    }
    const descriptor file = memory_file("text");
    {
        const raw_caller caller = invited_caller();
        ASSERT_TRUE(caller.send(make_record(8, 0, "c")) && caller.send_fds({file.get(), silent.fd()}));
        ASSERT_EQ(caller.receive(), make_record(9)) << "as one too many";
    }
    expect_it_serves();
    EXPECT_TRUE(eventually([&] { return silent.asked(FUSE_FLUSH) == 4; })) << silent.asked(FUSE_FLUSH);
    EXPECT_EQ(silent.asked(), 4U) << "nothing else";
    EXPECT_EQ(threads_that_block(SIGTERM), deaf + 4) << "no signal of the process is left to those who wait";
    one_.stop(); // returns
}

// Nor does the service wait for a lock of the file that somebody holds who waits for the file system.
TEST_F(ConsumerTest, FileThatIsLockedByAWriteWithoutEndCostsItsCallerOnly) {
    auto silent = std::make_unique<support::silent_file>();
    if (silent->fd() < 0) {
        GTEST_SKIP() << "no FUSE to be had here";
    }
    const pid_t writer = fork();
    if (writer == 0) {
        (void)!write(silent->fd(), "x", 1);
        _exit(0);
    }
    EXPECT_TRUE(eventually([&] { return silent->asked() == 1; }));
    EXPECT_TRUE(dropped_for({silent->fd()}));
    silent.reset();
    EXPECT_EQ(waitpid(writer, nullptr, 0), writer);
    expect_it_serves();
}

// Nor do they leave threads, or what threads stand on.
TEST_F(ConsumerTest, RefusedDescriptorsLeaveNothingBehind) {
    expect_it_serves();
    const descriptor no_file(open("/dev/null", O_RDWR | O_CLOEXEC));
    const auto descriptors = support::settled_descriptors();
    const auto threads = support::thread_count();
    const auto mappings = lines_of("/proc/self/maps");
    constexpr size_t kTimes = 300;
    for (size_t i = 0; i < kTimes; ++i) {
        ASSERT_TRUE(dropped_for({no_file.get()}));
        ASSERT_TRUE(eventually([&] { return support::thread_count() <= threads; }));
    }
    EXPECT_LT(lines_of("/proc/self/maps"), mappings + kTimes);
    // Together with what is in order.
    const descriptor file = memory_file("text");
    const descriptor huge = memory_file("text");
    ASSERT_EQ(ftruncate(huge.get(), (off_t)1 << 62), 0);
    const std::pair<std::vector<int>, std::vector<int>> both[] = {
        {{no_file.get()}, {file.get()}}, {{huge.get()}, {file.get()}}, {{file.get()}, {}}};
    for (const auto& [memory, extra] : both) {
        const raw_caller caller = invited_caller();
        ASSERT_TRUE(caller.send(make_record(8, 1, "c")) && caller.send_fds(memory) && caller.send_fds(extra));
        ASSERT_TRUE(caller.hung_up());
    }
    EXPECT_TRUE(eventually([&] { return support::open_descriptors().size() == descriptors + 2; }));
    EXPECT_TRUE(eventually([&] { return support::thread_count() <= threads; }));
}

TEST_F(ConsumerTest, SealsTheFileAgainstFurtherSeals) {
    const descriptor file = memory_file("text");
    const raw_caller caller = invited_caller();
    EXPECT_TRUE(caller.request("c", file.get()));
    EXPECT_EQ(fcntl(file.get(), F_GET_SEALS), F_SEAL_SEAL);
    EXPECT_EQ(fcntl(file.get(), F_ADD_SEALS, F_SEAL_WRITE), -1);
    EXPECT_EQ(contents(file), "c|text|none");
}

TEST_F(ConsumerTest, FileWithTheSealAgainstSealsIsWelcome) {
    const descriptor file = memory_file("text");
    ASSERT_EQ(fcntl(file.get(), F_ADD_SEALS, F_SEAL_SEAL), 0);
    const raw_caller caller = invited_caller();
    EXPECT_TRUE(caller.request("c", file.get()));
    const descriptor unsealable(memfd_create("x", 0));
    const raw_caller other = invited_caller();
    EXPECT_TRUE(other.request("c", unsealable.get()));
}

TEST_F(ConsumerTest, SealedFilesAreRefused) {
    for (const int seal : {F_SEAL_WRITE, F_SEAL_FUTURE_WRITE, F_SEAL_SHRINK, F_SEAL_GROW}) {
        for (const char* text : {"text", ""}) { // an empty one is not mapped, which would fail
            const descriptor file = memory_file(text);
            ASSERT_EQ(fcntl(file.get(), F_ADD_SEALS, seal), 0);
            EXPECT_TRUE(dropped_for({file.get()})) << seal;
            EXPECT_EQ(contents(file), text);
        }
    }
    expect_it_serves();
}

TEST_F(ConsumerTest, WhatIsNoReadWriteRegularFileIsRefused) {
    const support::temp_dir dir;
    const std::string path = dir.file("f");
    const descriptor read_write(open(path.c_str(), O_RDWR | O_CREAT, 0600));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const descriptor pipe_read(ends[0]);
    const descriptor pipe_write(ends[1]);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const descriptor socket_one(ends[0]);
    const descriptor socket_two(ends[1]);
    const struct {
        const char* what;
        descriptor fd;
    } bad[] = {
        {"read-only", descriptor(open(path.c_str(), O_RDONLY))},
        {"write-only", descriptor(open(path.c_str(), O_WRONLY))},
        {"path-only", descriptor(open(path.c_str(), O_PATH))},
        {"directory", descriptor(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY))},
        {"device", descriptor(open("/dev/null", O_RDWR))},
        {"pipe, reading", descriptor(dup(pipe_read.get()))},
        {"pipe, writing", descriptor(dup(pipe_write.get()))},
        {"socket", descriptor(dup(socket_one.get()))},
    };
    for (const auto& each : bad) {
        ASSERT_GE(each.fd.get(), 0) << each.what;
        EXPECT_TRUE(dropped_for({each.fd.get()})) << each.what;
    }
    expect_it_serves();
}

TEST_F(ConsumerTest, FileThatCannotBeMappedIsRefused) {
    const descriptor file = memory_file("text");
    ASSERT_EQ(ftruncate(file.get(), (off_t)1 << 62), 0);
    EXPECT_TRUE(dropped_for({file.get()}));
    expect_it_serves();
}

// ---- A caller that changes its file while the request is in hand

support::gate* in_hand = nullptr;

int read_late(const char*, ks_io* io, int) {
    in_hand->pass();
    (void)ks_io_read(io, nullptr); // maps; the bytes are the caller's and may go at any time
    const std::string text = support::text_of(io);
    in_hand->pass();
    support::answer(io, "answer to " + std::to_string(text.size()));
    return 0;
}

TEST(ConsumerChangedFileTest, TruncatingOrGrowingCostsTheServiceNothing) {
    for (const unsigned mode : {3U, 5U}) {
        support::gate here;
        in_hand = &here;
        const service one(mode, 1, read_late);
        const off_t sizes[] = {0, 1, 1 << 20, (off_t)1 << 62};
        for (const off_t before : sizes) {
            for (const off_t after : sizes) {
                const raw_caller caller(one.path());
                const descriptor file = memory_file(std::string(10000, 't'));
                ASSERT_TRUE(caller.invited());
                ASSERT_TRUE(caller.send(make_record(8)) && caller.send_fds({file.get()}));
                ASSERT_TRUE(here.await());
                ASSERT_EQ(ftruncate(file.get(), before), 0);
                here.open();
                ASSERT_TRUE(here.await());
                ASSERT_EQ(ftruncate(file.get(), after), 0);
                here.open();
                const auto what = caller.receive();
                EXPECT_TRUE(!what || *what == make_record(9));
            }
        }
        std::thread opener([&] {
            EXPECT_TRUE(here.await());
            here.open();
            EXPECT_TRUE(here.await());
            here.open();
        });
        std::string reply;
        EXPECT_EQ(support::call(one.name(), "c", "1234", &reply), 0U);
        EXPECT_EQ(reply, "answer to 4");
        opener.join();
    }
}

// The offset belongs to both. A write past the limit on file sizes raises SIGXFSZ, which ends a process by default.
TEST(ConsumerChangedFileTest, OffsetPastTheFileSizeLimitCostsTheServiceNothing) {
    static const support::shared<std::atomic<int>> error;
    for (const unsigned mode : {3U, 5U}) {
        EXPECT_EXIT(
            {
                support::end_within(std::chrono::seconds(60));
                (void)signal(SIGXFSZ, SIG_DFL);
                rlimit size = {};
                getrlimit(RLIMIT_FSIZE, &size);
                size.rlim_cur = 1 << 20;
                setrlimit(RLIMIT_FSIZE, &size);
                support::gate here;
                in_hand = &here;
                const service one(mode, 1, [](const char*, ks_io* io, int) {
                    ks_io_realloc(io, 0);
                    in_hand->pass();
                    *error = ks_io_write(io, "reply", 5) == 5 ? 0 : errno;
                    ks_reply(io);
                    ks_io_free(io);
                    return 0;
                });
                const auto serve = [&](off_t offset, const char* expected) {
                    const raw_caller caller(one.path());
                    const descriptor file = memory_file("text");
                    bool good = caller.invited() && caller.send(make_record(8)) && caller.send_fds({file.get()}) &&
                                here.await() && lseek(file.get(), offset, SEEK_SET) == offset;
                    here.open();
                    good = good && caller.receive() == make_record(9) && contents(file) == expected;
                    return good;
                };
                const bool lost = serve((off_t)1 << 40, "") && *error == EFBIG;
                _exit(lost && serve(0, "reply") && *error == 0 ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << mode;
    }
}

// ---- What the callback gets

int who(const char* command, ks_io* io, int) {
    const bool same = strcmp(command, io->command) == 0;
    support::answer(io, std::to_string(ks_io_pid(io)) + " " + std::to_string(ks_io_uid(io)) + " " +
                            std::to_string(ks_io_gid(io)) + " " + std::to_string(io->passfd) + (same ? " same" : ""));
    return 0;
}

TEST(ConsumerCallbackTest, GetsTheCallersCredentials) {
    const service one(5, 1, who);
    std::string reply;
    ASSERT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    EXPECT_EQ(reply,
              std::to_string(getpid()) + " " + std::to_string(getuid()) + " " + std::to_string(getgid()) + " -1 same");
}

TEST(ConsumerCallbackTest, CredentialsAreThoseOfTheConnection) {
    SKIP_UNLESS(may_become_others(), "calls as another user, which takes the machine's root");
    const support::temp_dir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const std::string name = "@" + dir.file("s");
    const service one(name, 5, 1, who);
    const pid_t child = fork();
    if (child == 0) {
        std::string reply;
        const bool good = setgid(1234) == 0 && setuid(4321) == 0 && support::call(name.c_str(), "c", "", &reply) == 0 &&
                          reply == std::to_string(getpid()) + " 4321 1234 -1 same";
        _exit(good ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// ---- Patience: all of the long one in one test, as it takes half a minute

class GivingWayTest : public testing::TestWithParam<unsigned> {};

INSTANTIATE_TEST_SUITE_P(WorkerKinds, GivingWayTest, testing::Values(3U, 5U));

TEST_P(GivingWayTest, SilentCallersHaveTwoSecondsForEachStepWhileOthersWait) {
    const service first(GetParam(), 1, echo);
    const service second(GetParam(), 1, echo);
    const service third(GetParam(), 1, echo);
    const descriptor file = memory_file("text");
    const raw_caller says_nothing(first.path());
    const raw_caller no_memory_file(second.path());
    const raw_caller no_extra(third.path());
    ASSERT_TRUE(says_nothing.invited());
    ASSERT_TRUE(no_memory_file.invited() && no_memory_file.send(make_record(8)));
    ASSERT_TRUE(no_extra.invited() && no_extra.send(make_record(8, 1)));
    EXPECT_FALSE(says_nothing.hung_up(std::chrono::milliseconds(2500))) << "nobody waits";
    ASSERT_TRUE(no_extra.send_fds({file.get()})) << "nobody waits";
    const auto begin = std::chrono::steady_clock::now();
    const raw_caller next_to_says_nothing(first.path());
    const raw_caller next_to_no_memory_file(second.path());
    const raw_caller next_to_no_extra(third.path());
    const descriptor reply = memory_file();
    EXPECT_TRUE(next_to_no_memory_file.invited() && no_memory_file.hung_up());
    EXPECT_TRUE(next_to_says_nothing.invited() && says_nothing.hung_up());
    EXPECT_TRUE(next_to_no_extra.invited() && no_extra.hung_up());
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, std::chrono::milliseconds(1900)) << "the extra descriptor's two seconds began with its step";
    EXPECT_LT(waited, std::chrono::seconds(25));
    EXPECT_TRUE(next_to_no_extra.request("c", reply.get()));
}

TEST(ConsumerPatienceTest, SilentAndPromisingCallersAreDroppedAfterThirtySeconds) {
    const service one(5, 4, echo);
    const descriptor file = memory_file("text");
    const auto begin = std::chrono::steady_clock::now();
    const int64_t cpu_before = support::cpu_ms();
    const raw_caller says_nothing(one.path());
    const raw_caller no_memory_file(one.path());
    const raw_caller no_extra(one.path());
    ASSERT_TRUE(says_nothing.invited());
    ASSERT_TRUE(no_memory_file.invited() && no_memory_file.send(make_record(8)));
    ASSERT_TRUE(no_extra.invited() && no_extra.send(make_record(8, 1)) && no_extra.send_fds({file.get()}));
    std::string reply;
    EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U) << "the fourth consumer";
    for (const raw_caller* each : {&says_nothing, &no_memory_file, &no_extra}) {
        EXPECT_TRUE(each->hung_up(std::chrono::seconds(60)));
        const auto waited = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(waited, std::chrono::milliseconds(29900));
        EXPECT_LT(waited, std::chrono::seconds(40));
    }
    EXPECT_LT(support::cpu_ms() - cpu_before, 5000) << "the consumers spun while they waited";
    EXPECT_EQ(contents(file), "text");
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(support::call(one.name(), "c", "", &reply), 0U);
    }
}

} // namespace
