// The order in which the real daemon stops, held up between the steps so that each can be seen.
#include "daemon_process.h"
#include "notify_listener.h"
#include "system_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sys/stat.h>
#include <thread>

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

class StopOrderTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "runs in the simulated host only";
        (void)unlink(kDaemonLog);
        (void)mkdir("/var/run/ks", 0755);
    }
};

TEST_F(StopOrderTest, WhileARequestRunsBothRelaysGoOnAndNothingIsTakenDown) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const notify_listener listener;
    const std::string main_socket = socket_path(kMain);
    fifo_gate gate;
    unsigned code = ~0U;
    std::string reply;
    std::thread client([&] {
        code = call_service(kMain, "exec_cli", R"({"command":["/bin/cat",")" + gate.path() + R"("]})", &reply, 60);
    });
    EXPECT_TRUE(gate.is_reached());

    kill(daemon.pid(), SIGTERM);
    EXPECT_TRUE(wait_until([&] { return !file_exists(main_socket); })) << "the stop never began";
    EXPECT_TRUE(post(kEventQueue, host_record::event(1, "late", "c")));
    EXPECT_TRUE(post(kNotifyQueue, host_record::notification(1, 1, 1, "late")));
    std::vector<std::string> commands;
    for (const auto& request : notify_listener::wait_for(2)) {
        commands.push_back(request.first);
    }
    EXPECT_THAT(commands, UnorderedElementsAre("notify_log", "notify_event"));
    EXPECT_TRUE(queue_exists(kEventQueue));
    EXPECT_TRUE(queue_exists(kNotifyQueue));
    EXPECT_THAT(read_file(kDaemonLog), Not(HasSubstr("is_terminate")));

    gate.let_go();
    client.join();
    EXPECT_EQ(code, 0U) << "the request that was under way is answered";
    EXPECT_THAT(reply, HasSubstr("\"result\":\"\""));
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_THAT(read_file(kDaemonLog), HasSubstr("] is_terminate\n"));
    EXPECT_FALSE(queue_exists(kEventQueue));
    EXPECT_FALSE(queue_exists(kNotifyQueue));
}

TEST_F(StopOrderTest, AnEarlyStopWaitsUntilBothServicesAreUp) {
    for (const char* late : {"1", "2"}) {
        (void)unlink(kDaemonLog);
        fifo_gate gate;
        setenv("BROKEN_START_GATE", gate.path().c_str(), 1);
        const preloaded broken(BROKEN_START, "BROKEN_START", late);
        daemon_process daemon({"-t"});
        ASSERT_TRUE(gate.is_reached());
        int polls = 0; // in which the main thread was seen to wait, without a break
        EXPECT_TRUE(wait_until([&] {
            polls = waits_in(daemon.pid(), daemon.pid()) == SYS_futex ? polls + 1 : 0;
            return polls == 50;
        })) << "the main thread did not wait for service "
            << late;
        EXPECT_THAT(read_file(kDaemonLog), Not(HasSubstr("is_terminate")));
        gate.let_go();
        EXPECT_EQ(daemon.wait(), 0);
        const std::string log = read_file(kDaemonLog);
        for (const char* line : {"] ks_start.\n", "] ks_send_mail_start.\n"}) {
            EXPECT_LT(log.find(line), log.find("] is_terminate\n")) << log;
        }
    }
}

// The mail service is left to the end of the process: nothing waits for its requests or their tools.
TEST_F(StopOrderTest, AMailUnderWayDoesNotHoldUpTheStopAndItsToolGoesOn) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const waiting_mails mails(daemon.pid(), 2);
    const auto tools = children_of(daemon.pid());
    ASSERT_EQ(tools.size(), 2U);
    EXPECT_EQ(daemon.stop(), 0);
    for (const pid_t tool : tools) {
        EXPECT_EQ(kill(tool, 0), 0) << "the mail program was ended";
    }
    EXPECT_FALSE(file_exists(socket_path(kMain)));
    EXPECT_TRUE(file_exists(socket_path(kMail)));
}

TEST_F(StopOrderTest, TheStopIsLoggedFirstThenTheNotificationQueueGoesThenTheEventLogQueue) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    // Both relays wait for an answer, which holds each step up in turn.
    auto listener = std::make_unique<notify_listener>(notify_listener::manner::is_silent);
    ASSERT_TRUE(post(kEventQueue, host_record::event(1, "u", "c")));
    ASSERT_TRUE(post(kNotifyQueue, host_record::notification(1, 1, 1, "x")));
    ASSERT_EQ(notify_listener::wait_for(2).size(), 2U);
    kill(daemon.pid(), SIGTERM);
    bool notify_queue = true;
    ASSERT_TRUE(wait_until([&] {
        const bool event_queue = queue_exists(kEventQueue); // first: the other must be gone before
        notify_queue = queue_exists(kNotifyQueue);
        return !event_queue || !notify_queue;
    }));
    EXPECT_FALSE(notify_queue);
    EXPECT_THAT(read_file(kDaemonLog), HasSubstr("] is_terminate\n"));
    listener.reset(); // answers
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_FALSE(queue_exists(kEventQueue));
}

} // namespace
