#include "dispatch.h"
#include "log.h"
#include "scoped.h"
#include "test_files.h"
#include "unique_fd.h"
#include "wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char* kMainTest = "{\"handler\":\"test_handler\",\"service\":\"VexHubServer-vexprod\"}\n";
constexpr const char* kMailTest =
    "{\"handler\":\"hos_test_sendmail_srv_handler\",\"service\":\"VexHubServer_send_mail-vexprod\"}\n";

// One of the daemon's entries, published in this process.
class served {
public:
    explicit served(ks_exec entry) : name_("@" + (folder_ / "s.sock")) {
        handle_ = ks_create(name_.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 2, entry);
        ks_start(handle_);
    }
    served(const served&) = delete;
    served& operator=(const served&) = delete;
    ~served() { ks_free(handle_); }

    // The result code; with KS_OK the reply.
    unsigned call(const char* command, const std::string& request, std::string* ret_reply, int passfd = -1) const {
        void* reply = nullptr;
        size_t size = 0;
        const unsigned code =
            ks_ez_call(name_.c_str(), command, request.data(), request.size(), &reply, &size, 10, passfd);
        const unique_heap<void> owner(reply);
        ret_reply->assign(static_cast<const char*>(reply), code == KS_OK ? size : 0);
        return code;
    }

private:
    test_folder folder_;
    std::string name_;
    ks_handle* handle_ = nullptr;
};

size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

std::string target_of(int fd) {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error).string();
}

// What standard output, and descriptor `fd`, of this process are while a handler runs: asked by a child of the handler.
std::string asks_where(int fd) {
    return "{\"command\":[\"/bin/readlink\",\"/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd) + "\"]}";
}

class DispatchTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr);
        log_set_dir("/tmp/dispatch-log");
        // The test runner's own output must come back when a test is over.
        kept_stdout_.reset(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    }
    void TearDown() override {
        (void)fflush(stdout);
        dup2(kept_stdout_.get(), STDOUT_FILENO);
    }
    unique_fd kept_stdout_;
    std::string reply_;
};

TEST_F(DispatchTest, TestRunsEachServicesOwnHandler) {
    EXPECT_EQ(served(service_handler).call("test", "", &reply_), 0U);
    EXPECT_EQ(reply_, kMainTest);
    EXPECT_EQ(served(sendmail_service_handler).call("test", "", &reply_), 0U);
    EXPECT_EQ(reply_, kMailTest);
}

TEST_F(DispatchTest, AnUnknownCommandEndsTheConnectionWithoutAReply) {
    const served main(service_handler);
    for (const char* command : {"sendmail", "Exec_cli", "exec_Cli", "exec_cli ", " exec_cli", "", "no_such"}) {
        EXPECT_EQ(main.call(command, "{}", &reply_), 5U) << command;
    }
    EXPECT_EQ(served(sendmail_service_handler).call("exec_cli", "{}", &reply_), 5U);
}

TEST_F(DispatchTest, AnUnknownCommandLeavesNothingBehind) {
    const served main(service_handler);
    for (int i = 0; i < 4; ++i) { // callers go to the workers in turn: afterwards both have come up
        EXPECT_EQ(main.call("test", "", &reply_), 0U);
    }
    const size_t before = settled(open_descriptors);
    for (int i = 0; i < 200; ++i) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        EXPECT_EQ(main.call("no_such", "{}", &reply_, ends[1]), 5U);
        close(ends[1]);
        char byte = 0;
        EXPECT_EQ(read(ends[0], &byte, 1), 0) << "the passed descriptor is still open";
        close(ends[0]);
    }
    EXPECT_TRUE(wait_until([&] { return open_descriptors() == before; }))
        << open_descriptors() << ", before " << before;
}

TEST_F(DispatchTest, TheCallersDescriptorIsStandardOutputWhileTheHandlerRuns) {
    const served main(service_handler);
    const test_folder folder;
    const unique_fd file(open((folder / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(main.call("exec_cli", asks_where(1), &reply_, file.get()), 0U);
    EXPECT_THAT(reply_, testing::HasSubstr(folder / "out"));
    // The reply comes before the request's end.
    EXPECT_TRUE(wait_until([] { return target_of(1) == "/dev/null"; }));
}

TEST_F(DispatchTest, WithoutADescriptorStandardOutputStaysTheNullDevice) {
    const served main(service_handler);
    EXPECT_EQ(main.call("test", "", &reply_), 0U);
    ASSERT_TRUE(wait_until([] { return target_of(1) == "/dev/null"; }));
    EXPECT_EQ(main.call("exec_cli", asks_where(1), &reply_), 0U);
    EXPECT_THAT(reply_, testing::HasSubstr("\"result\":\"/dev/null\\n\""));
}

TEST_F(DispatchTest, WhatIsPrintedWhileAHandlerRunsReachesTheCallersDescriptor) {
    const served main(service_handler);
    const test_folder folder;
    const std::string gate = folder / "gate";
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const unique_fd read_end(ends[0]);
    unique_fd write_end(ends[1]);
    const std::string pipe_name = target_of(write_end.get());
    std::thread client([&] {
        std::string reply;
        EXPECT_EQ(main.call("exec_cli", R"({"command":["/bin/cat",")" + gate + R"("]})", &reply, write_end.get()), 0U);
    });
    // The program, and so the handler, waits for the gate.
    EXPECT_TRUE(wait_until([&] { return target_of(1) == pipe_name; }));
    (void)printf("printed\n"); // stays in the buffer until the request ends
    std::ofstream(gate).close();
    client.join();
    write_end.reset();
    char text[16] = {};
    EXPECT_EQ(read(read_end.get(), text, sizeof(text) - 1), 8);
    EXPECT_STREQ(text, "printed\n");
    EXPECT_EQ(read(read_end.get(), text, sizeof(text)), 0) << "the daemon's side holds it no more";
}

TEST_F(DispatchTest, TheDescriptorsNumberIsHeldUntilItIsClosedTheSecondTime) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int number = ends[1];
    ks_io* io = ks_io_create();
    const std::string request = asks_where(number);
    ks_io_write(io, request.data(), request.size());
    ks_io_sync(io);
    const unique_fd result(ks_io_dup(io));
    EXPECT_EQ(service_handler("exec_cli", io, number), 0);
    char text[512] = {};
    EXPECT_GT(pread(result.get(), text, sizeof(text) - 1, 0), 0);
    EXPECT_THAT(std::string(text), testing::HasSubstr("\"result\":\"/dev/null\\n\""));
    EXPECT_EQ(fcntl(number, F_GETFD), -1) << "closed in the end";
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 0) << "nobody holds the pipe's end any more";
    close(ends[0]);
}

// For as long as it lives this process can make no thread: the address space has no room for the stack.
class no_more_threads {
public:
    no_more_threads() {
        pthread_attr_init(&attr_);
        pthread_getattr_default_np(&attr_);
        pthread_attr_getstacksize(&attr_, &before_);
        pthread_attr_setstacksize(&attr_, size_t{1} << 60);
        EXPECT_EQ(pthread_setattr_default_np(&attr_), 0);
    }
    no_more_threads(const no_more_threads&) = delete;
    no_more_threads& operator=(const no_more_threads&) = delete;
    ~no_more_threads() {
        pthread_attr_setstacksize(&attr_, before_);
        EXPECT_EQ(pthread_setattr_default_np(&attr_), 0);
        pthread_attr_destroy(&attr_);
    }

private:
    pthread_attr_t attr_ = {};
    size_t before_ = 0;
};

TEST_F(DispatchTest, ARequestThatGetsNoThreadEndsWithoutAReplyAndLeavesNothingBehind) {
    const served main(service_handler);
    for (int i = 0; i < 4; ++i) { // callers go to the workers in turn: afterwards both have come up
        EXPECT_EQ(main.call("test", "", &reply_), 0U);
    }
    const size_t before = settled(open_descriptors);
    {
        const no_more_threads limit;
        pthread_t thread = {};
        ASSERT_EQ(pthread_create(
                      &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr),
                  EAGAIN);
        for (int i = 0; i < 20; ++i) {
            int ends[2];
            ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
            EXPECT_EQ(main.call("test", "", &reply_, ends[1]), 5U);
            close(ends[1]);
            char byte = 0;
            ASSERT_TRUE(wait_until([&] { return read(ends[0], &byte, 1) == 0; }))
                << "the passed descriptor is still open";
            close(ends[0]);
        }
        EXPECT_EQ(target_of(1), "/dev/null") << "standard output no longer leads to the caller";
    }
    EXPECT_TRUE(wait_until([&] { return open_descriptors() == before; }))
        << open_descriptors() << ", before " << before;
    EXPECT_EQ(main.call("test", "", &reply_), 0U) << "the worker is as good as before";
    EXPECT_EQ(reply_, kMainTest);
}

TEST_F(DispatchTest, AnUnknownCommandWithoutAnObjectIsNoFault) {
    EXPECT_EQ(service_handler("no_such", nullptr, -1), 0);
    EXPECT_EQ(sendmail_service_handler("sendmail ", nullptr, -1), 0);
}

TEST_F(DispatchTest, WhatAHandlerLetsEscapeIsLoggedAndEndsOnlyItsThread) {
    const std::string log = "/tmp/dispatch-log/.lyn_ks_vexprod.log";
    (void)unlink(log.c_str());
    using body = int (*)(ks_io*, int);
    const body bodies[] = {
        [](ks_io*, int) -> int { throw std::runtime_error("no such conversion"); },
        [](ks_io*, int) -> int { throw 42; },
        [](ks_io*, int) -> int { pthread_exit(nullptr); },
    };
    for (const body each : bodies) {
        request_thread request = {-1, nullptr, "escapes", each};
        pthread_t thread = {};
        ASSERT_EQ(pthread_create(&thread, nullptr, pthread_callback_function, &request), 0);
        ASSERT_EQ(pthread_join(thread, nullptr), 0);
    }
    const std::string text = read_file(log);
    EXPECT_THAT(text, testing::HasSubstr("escapes ended without a reply: no such conversion\n"));
    EXPECT_THAT(text, testing::HasSubstr("escapes ended without a reply.\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << "leaving by pthread_exit() is no escape";
}

} // namespace
