// The environment that a process worker runs its callback in: the caller's.
#include "framework_support.h"
#include "kservice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::descriptor;
using support::eventually;
using support::make_record;
using support::memory_file;
using support::raw_caller;
using support::service;
using testing::UnorderedElementsAre;

std::string contents(const descriptor& file) {
    char bytes[4096];
    const ssize_t got = pread(file.get(), bytes, sizeof(bytes), 0);
    return {bytes, got < 0 ? 0 : (size_t)got};
}

// The value of a variable; with "heap" the bytes in use of the C library's heap, with "count" the number of all, with
// "all" all of them, which are changed afterwards, as a callback may.
int tell_environment(const char* command, ks_io* io, int) {
    std::string text;
    int count = 0;
    for (char** each = environ; each != nullptr && *each != nullptr; ++each) {
        text += std::string(*each) + "\n";
        ++count;
    }
    if (strcmp(command, "heap") == 0) {
        const struct mallinfo2 heap = mallinfo2();
        support::answer(io, std::to_string(heap.uordblks + heap.hblkhd));
        return 0;
    }
    if (strcmp(command, "count") == 0) {
        support::answer(io, std::to_string(count));
        return 0;
    }
    if (strcmp(command, "all") == 0) {
        setenv("KS_SET", "by the callback", 1);
        setenv("KS_THEIRS", "by the callback", 1);
        static char put[] = "KS_PUT=by the callback";
        putenv(put);
        support::answer(io, text);
        return 0;
    }
    const char* value = getenv(command);
    support::answer(io, value == nullptr ? "(unset)" : value);
    return 0;
}

// /proc/<pid>/environ shows what a program was started with, so the caller has to be a program of its own.
std::string reply_to_a_caller_with(const std::vector<std::string>& environment, const std::string& service_name,
                                   const std::string& command) {
    const support::temp_dir dir;
    std::vector<char*> envp;
    for (const auto& each : environment) {
        envp.push_back(const_cast<char*>(each.c_str()));
    }
    envp.push_back(nullptr);
    char self[4096] = {};
    (void)!readlink("/proc/self/exe", self, sizeof(self) - 1);
    const std::string out = dir.file("out");
    std::vector<std::string> words = {self, "--call", service_name, command, out};
    std::vector<char*> argv;
    for (auto& each : words) {
        argv.push_back(each.data());
    }
    argv.push_back(nullptr);
    pid_t child = 0;
    int status = -1;
    if (posix_spawn(&child, self, nullptr, nullptr, argv.data(), envp.data()) != 0 ||
        waitpid(child, &status, 0) != child || status != 0) {
        return "(failed)";
    }
    const descriptor file(open(out.c_str(), O_RDONLY));
    return contents(file);
}

TEST(ConsumerEnvironmentTest, ProcessConsumerAdoptsTheCallersEnvironment) {
    setenv("KS_OURS", "ours", 1);
    const service one(3, 1, tell_environment);
    const std::vector<std::string> theirs = {"KS_THEIRS=a=b", "KS_EMPTY=", "junk"};
    EXPECT_EQ(reply_to_a_caller_with(theirs, one.name(), "KS_THEIRS"), "a=b");
    EXPECT_EQ(reply_to_a_caller_with(theirs, one.name(), "KS_EMPTY"), "");
    EXPECT_EQ(reply_to_a_caller_with(theirs, one.name(), "KS_OURS"), "(unset)");
    // Each later request overwrites it again, and an empty one empties it.
    EXPECT_EQ(reply_to_a_caller_with({"KS_THEIRS=second"}, one.name(), "KS_THEIRS"), "second");
    EXPECT_EQ(reply_to_a_caller_with({"KS_OTHER=1"}, one.name(), "KS_THEIRS"), "(unset)");
    EXPECT_EQ(reply_to_a_caller_with({}, one.name(), "KS_OTHER"), "(unset)");
    EXPECT_STREQ(getenv("KS_OURS"), "ours");
}

TEST(ConsumerEnvironmentTest, AdoptedWithEachNameOnceAndNothingElse) {
    const service one(3, 1, tell_environment);
    const auto all = [&one](const std::vector<std::string>& environment) {
        std::istringstream text(reply_to_a_caller_with(environment, one.name(), "all"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        return lines;
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(all({"KS_THEIRS=1", "KS_B=2", "KS_THEIRS=3", "=nameless", "==", "junk", "", "KS_THEIR=4",
                         "KS_B==", "KS_EMPTY=", "KS_THEIRSX=5"}),
                    UnorderedElementsAre("KS_THEIRS=3", "KS_THEIR=4", "KS_B==", "KS_EMPTY=", "KS_THEIRSX=5"));
        EXPECT_THAT(all({"KS_SAME=1", "KS_SAME=2", "KS_SAME=3"}), UnorderedElementsAre("KS_SAME=3"));
        EXPECT_THAT(all({"junk"}), UnorderedElementsAre());
        EXPECT_THAT(all({}), UnorderedElementsAre());
    }
}

// Each name twice, and more than one read of the file brings.
TEST(ConsumerEnvironmentTest, LargeOnesAreAdoptedWhole) {
    const service one(3, 1, tell_environment);
    std::vector<std::string> many;
    for (int i = 0; i < 20000; ++i) {
        many.push_back("KS_" + std::to_string(i % 10000) + "=" + std::to_string(i));
    }
    EXPECT_EQ(reply_to_a_caller_with(many, one.name(), "count"), "10000");
    EXPECT_EQ(reply_to_a_caller_with(many, one.name(), "KS_0"), "10000");
    EXPECT_EQ(reply_to_a_caller_with(many, one.name(), "KS_4321"), "14321");
    EXPECT_EQ(reply_to_a_caller_with(many, one.name(), "KS_9999"), "19999");
}

// The one before is given back, entries and texts.
TEST(ConsumerEnvironmentTest, OneAtATimeIsKept) {
    const service one(3, 1, tell_environment);
    const std::vector<std::string> many(20000, "KS_A=1");
    size_t in_use[3];
    for (size_t& each : in_use) {
        each = std::stoul(reply_to_a_caller_with(many, one.name(), "heap"));
    }
    EXPECT_LT(in_use[2], in_use[1] + 50000);
}

// Where a thread of the program is inside setenv(), which keeps a lock of the C library while it looks through the
// environment: one entry lies in a page that cannot be read.
char* unreadable_page = nullptr;
support::gate* inside_setenv = nullptr;
void wait_inside_setenv(int) {
    inside_setenv->pass();
    mprotect(unreadable_page, 4096, PROT_READ | PROT_WRITE);
}

TEST(ConsumerEnvironmentTest, AdoptedByAWorkerThatStartedWhileSetenvWasUnderWay) {
    EXPECT_EXIT(
        {
            support::end_within(std::chrono::seconds(60));
            support::gate here;
            inside_setenv = &here;
            void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            unreadable_page = static_cast<char*>(page);
            strcpy(unreadable_page, "KS_PAGE=1");
            putenv(unreadable_page);
            const service one(3, 1, tell_environment);
            mprotect(page, 4096, PROT_NONE);
            (void)signal(SIGSEGV, wait_inside_setenv);
            std::thread setter([] { setenv("KS_NOT_THERE_YET", "1", 1); }); // looks at every entry
            bool good = here.await();
            const pid_t worker = support::entry_of(one.handle(), 0).id.pid;
            siginfo_t info = {};
            good = good && kill(worker, SIGKILL) == 0 &&
                   waitid(P_PID, (id_t)worker, &info, WEXITED | WNOWAIT) == 0; // leaves the status to the producer
            const std::string reply = reply_to_a_caller_with({"KS_THEIRS=1"}, one.name(), "KS_THEIRS");
            here.open();
            setter.join();
            _exit(good && reply == "1" ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ConsumerEnvironmentTest, ThreadConsumerKeepsItsOwn) {
    setenv("KS_OURS", "ours", 1);
    const service one(5, 1, tell_environment);
    EXPECT_EQ(reply_to_a_caller_with({"KS_THEIRS=1"}, one.name(), "KS_THEIRS"), "(unset)");
    EXPECT_EQ(reply_to_a_caller_with({"KS_THEIRS=1"}, one.name(), "KS_OURS"), "ours");
}

// The caller has gone when its request is run: its environment cannot be read, and ours stays.
TEST(ConsumerEnvironmentTest, UnreadableEnvironmentLeavesOurs) {
    setenv("KS_OURS", "ours", 1);
    const service one(3, 1, [](const char*, ks_io* io, int fd) {
        const char* value = getenv("KS_OURS");
        if (fd >= 0) {
            (void)!write(fd, value == nullptr ? "unset" : value, value == nullptr ? 5 : strlen(value));
            close(fd);
        }
        support::answer(io, "");
        return 0;
    });
    const descriptor noted = memory_file();
    // SO_PEERCRED names who connected; here that one is gone when somebody else goes on with the connection.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const descriptor from(pair[0]);
    const descriptor to(pair[1]);
    const descriptor file = memory_file("x");
    const std::string path = one.path();
    const pid_t child = fork();
    if (child == 0) {
        const raw_caller caller(path);
        const bool good = caller.invited();
        // Leaves the connection in the socket pair.
        iovec data = {const_cast<char*>("x"), 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_len = CMSG_LEN(sizeof(int));
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        const int fd = caller.fd();
        memcpy(CMSG_DATA(header), &fd, sizeof(fd));
        _exit(good && sendmsg(to.get(), &message, 0) == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ASSERT_EQ(recvmsg(from.get(), &message, MSG_CMSG_CLOEXEC), 1);
    int number = -1;
    ASSERT_NE(CMSG_FIRSTHDR(&message), nullptr);
    memcpy(&number, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(number));
    const descriptor connection(number);
    const support::record request = make_record(8, 1, "c");
    ASSERT_EQ(send(connection.get(), request.data(), request.size(), 0), 259);
    for (const int each : {file.get(), noted.get()}) {
        memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), &each, sizeof(each));
        message.msg_controllen = CMSG_LEN(sizeof(int));
        ASSERT_EQ(sendmsg(connection.get(), &message, 0), 1);
    }
    EXPECT_TRUE(eventually([&] { return contents(noted) == "ours"; })) << contents(noted);
}

} // namespace

// As a program of its own: "--call <service> <command> <file>" writes the reply into the file.
__attribute__((constructor)) static void be_a_caller(int argc, char** argv, char**) {
    if (argc != 5 || strcmp(argv[1], "--call") != 0) {
        return;
    }
    std::string reply;
    const unsigned code = support::call(argv[2], argv[3], "", &reply);
    const descriptor out(open(argv[4], O_WRONLY | O_CREAT, 0600));
    (void)!write(out.get(), reply.data(), reply.size());
    _exit((int)code);
}
