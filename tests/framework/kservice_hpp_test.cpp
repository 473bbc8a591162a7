// The C++ header against real services.
#include "framework_support.h"
#include "kservice.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using kservice::call;
using kservice::status;
using namespace std::chrono_literals;

void echo(kservice::request& request) {
    EXPECT_TRUE(request.reply(request.command() + ":" + request.text()));
}

class KserviceHppTest : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "hpp-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        name_ = "@" + folder_ + "/s";
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::string folder_;
    std::string name_;
};

TEST_F(KserviceHppTest, CallGivesTheReplysBytes) {
    kservice::service service(name_, 1, echo);
    service.start();
    const std::string bytes("a\0\xFF\n", 4);
    EXPECT_EQ(call(name_, "echo", bytes).value(), "echo:" + bytes);
    EXPECT_EQ(call(name_, "c").value(), "c:");
    const std::string large(5 << 20, 'x');
    EXPECT_EQ(call(name_, "echo", large).value(), "echo:" + large);
}

TEST_F(KserviceHppTest, CallTellsWhyThereIsNoReply) {
    EXPECT_EQ(call(name_, "echo").error(), status::no_service);
    kservice::service service(name_, 1, [](kservice::request&) {});
    service.start();
    EXPECT_EQ(call(name_, "echo").error(), status::disconnected);
    service.pause();
    EXPECT_EQ(call(name_, "echo").error(), status::paused);
    service.resume();
    EXPECT_EQ(call(name_, "echo").error(), status::disconnected);
    service.stop();
    EXPECT_EQ(call(name_, "echo").error(), status::no_service);
}

// A part of a reply, or of a request, would be another one.
TEST_F(KserviceHppTest, TextThatCannotBeReadIsNone) {
    const auto reads_none = [&] {
        support::end_within(60s);
        kservice::service service(name_, 1, [](kservice::request& request) {
            (void)request.reply(request.command() == "read" ? request.text() : "reply");
        });
        service.start();
        kservice::set requests;
        kservice::message io;
        (void)io.write("a request");
        support::fail_system_call(SYS_pread64, EIO);
        const bool called = call(name_, "reply").error() == status::disconnected;
        const bool added = requests.add(name_, "reply") == status::ok;
        const auto ended = requests.wait(50s);
        const bool waited = added && ended && ended->reply.error() == status::disconnected;
        const bool served = ks_call(name_.c_str(), "read", io.get(), 30, -1) == KS_DISCONNECTED;
        _exit((called ? 0 : 1) + (waited ? 0 : 2) + (served ? 0 : 4));
    };
    EXPECT_EXIT(reads_none(), testing::ExitedWithCode(0), "");
}

TEST_F(KserviceHppTest, CallRefusesNamesThatTheLibraryWouldCut) {
    kservice::service service(name_, 1, echo);
    service.start();
    EXPECT_EQ(call("", "echo").error(), status::bad_argument);
    EXPECT_EQ(call(std::string(65, 's'), "echo").error(), status::bad_argument);
    EXPECT_EQ(call(name_ + std::string("\0x", 2), "echo").error(), status::bad_argument);
    EXPECT_EQ(call(name_, "").error(), status::bad_argument);
    EXPECT_EQ(call(name_, std::string(257, 'c')).error(), status::bad_argument);
    EXPECT_EQ(call(name_, std::string("echo\0x", 6)).error(), status::bad_argument);
    kservice::set set;
    EXPECT_EQ(set.add("", "echo"), status::bad_argument);
    EXPECT_EQ(set.add(name_, ""), status::bad_argument);
    EXPECT_EQ(set.add(name_, std::string("echo\0x", 6)), status::bad_argument);
    EXPECT_EQ(set.size(), 0U);
}

TEST_F(KserviceHppTest, ValueThrowsTheReason) {
    try {
        (void)call(name_, "echo").value();
        FAIL() << "nobody serves " << name_;
    } catch (const kservice::call_error& error) {
        EXPECT_EQ(error.code(), status::no_service);
        EXPECT_STREQ(error.what(), "no such service");
    }
}

TEST_F(KserviceHppTest, RequestKnowsItsCaller) {
    kservice::service service(name_, 1, [](kservice::request& request) {
        const bool known = request.pid() == getpid() && request.uid() == getuid() && request.gid() == getgid();
        EXPECT_TRUE(request.reply(known && request.alive() && request.extra_fd() == -1 ? "me" : "not me"));
    });
    service.start();
    EXPECT_EQ(call(name_, "who").value(), "me");
}

TEST_F(KserviceHppTest, ExtraDescriptorIsHandedOverAndClosedAfterTheRequest) {
    kservice::service service(name_, 1, [](kservice::request& request) {
        EXPECT_EQ(write(request.extra_fd(), "seen", 4), 4);
        EXPECT_TRUE(request.reply(""));
    });
    service.start();
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    EXPECT_EQ(call(name_, "print", "", 30s, ends[1]).value(), "");
    close(ends[1]);
    std::array<char, 8> text{};
    EXPECT_EQ(read(ends[0], text.data(), text.size()), 4);
    EXPECT_EQ(read(ends[0], text.data(), text.size()), 0) << "returns when the service has closed its copy";
    close(ends[0]);
}

TEST_F(KserviceHppTest, WhatAHandlerThrowsEndsThatRequestOnly) {
    kservice::service service(name_, 1, [](kservice::request& request) {
        if (request.command() == "throw") {
            throw std::runtime_error("as asked");
        }
        if (request.command() == "throw a number") {
            throw 1;
        }
        echo(request);
    });
    service.start();
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(name_, "throw").error(), status::disconnected);
    EXPECT_EQ(call(name_, "throw a number").error(), status::disconnected);
    EXPECT_EQ(call(name_, "echo").value(), "echo:");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kservice: throw: as asked\nkservice: throw a number: unknown exception\n");
}

TEST_F(KserviceHppTest, EachServiceHasItsOwnHandlerAlsoWhenItWasMoved) {
    const auto answer = [](std::string text) {
        return [text = std::move(text)](kservice::request& request) { EXPECT_TRUE(request.reply(text)); };
    };
    kservice::service first(name_, 2, answer("first"));
    kservice::service second(name_ + "2", 2, answer("second"));
    first.start();
    const kservice::service moved = std::move(first);
    second.start();
    for (int i = 0; i < 4; ++i) { // each worker of each at least once
        EXPECT_EQ(call(name_, "c").value(), "first");
        EXPECT_EQ(call(name_ + "2", "c").value(), "second");
    }
}

TEST_F(KserviceHppTest, ServiceThatIsReplacedEndsBeforeItsHandler) {
    bool served_until_then = false;
    const auto note = [&](void*) { served_until_then = std::filesystem::exists(folder_ + "/s"); };
    kservice::service service(name_, 1, [held = std::shared_ptr<void>(nullptr, note)](kservice::request&) {});
    service.start();
    service = kservice::service(name_ + "2", 1, echo);
    EXPECT_FALSE(served_until_then);
    service.start();
    const auto reply = call(name_ + "2", "echo");
    EXPECT_EQ(reply.value(), "echo:");
}

TEST_F(KserviceHppTest, ServesInProcesses) {
    kservice::service service(
        name_, 2, [](kservice::request& request) { (void)request.reply(std::to_string(getpid())); },
        KS_STANDALONE | KS_PROCESS_MODE);
    service.start();
    EXPECT_NE(call(name_, "c").value(), std::to_string(getpid()));
}

TEST_F(KserviceHppTest, ServesInTheCallingThreadUntilStopped) {
    kservice::service service(name_, 1, echo, KS_PTHREAD_MODE);
    std::thread server([&service] { service.start(); });
    while (call(name_, "echo").error() == status::no_service) {
        std::this_thread::yield();
    }
    service.stop();
    server.join();
}

TEST_F(KserviceHppTest, SetReturnsEachReplyWithItsTag) {
    kservice::service service(name_, 3, echo);
    service.start();
    kservice::set set;
    for (size_t i = 0; i < 20; ++i) {
        ASSERT_EQ(set.add(name_, "echo", std::to_string(i), i), status::ok);
    }
    EXPECT_EQ(set.size(), 20U);
    std::map<size_t, std::string> replies;
    while (const auto ended = set.wait(30s)) {
        replies[ended->tag] = *ended->reply;
    }
    EXPECT_EQ(replies.size(), 20U);
    for (const auto& [tag, reply] : replies) {
        EXPECT_EQ(reply, "echo:" + std::to_string(tag));
    }
    EXPECT_EQ(set.size(), 0U);
}

TEST_F(KserviceHppTest, SetTellsWhatFailed) {
    kservice::set set;
    EXPECT_EQ(set.add(name_, "echo", "", 1), status::no_service);
    EXPECT_EQ(set.size(), 0U);
    kservice::service service(name_, 1, [](kservice::request& request) {
        if (request.command() == "echo") {
            echo(request);
        }
    });
    service.start();
    ASSERT_EQ(set.add(name_, "silent", "", 2), status::ok);
    const auto ended = set.wait(30s);
    ASSERT_TRUE(ended);
    EXPECT_EQ(ended->tag, 2U);
    EXPECT_EQ(ended->reply.error(), status::disconnected);
}

TEST_F(KserviceHppTest, SetWaitsNoLongerThanAsked) {
    std::atomic<bool> released = false;
    kservice::service service(name_, 1, [&released](kservice::request& request) {
        released.wait(false);
        echo(request);
    });
    service.start();
    kservice::set set;
    ASSERT_EQ(set.add(name_, "echo", "x"), status::ok);
    EXPECT_FALSE(set.wait(50ms));
    EXPECT_EQ(set.size(), 1U);
    released = true;
    released.notify_all();
    EXPECT_EQ(set.wait(30s)->reply.value(), "echo:x");
    EXPECT_FALSE(set.wait(30s)) << "returns at once when nothing is under way";
}

} // namespace
