// The road of an event: a host program posts a record, the real daemon relays it, a real notification service hears it.
#include "daemon_process.h"
#include "notify_listener.h"
#include "stopped_process.h"
#include "system_helpers.h"
#include "unique_fd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <array>
#include <fstream>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

// What a stop may take while a call to the notification service has its full 5 seconds. A sanitizer waits a second more
// at the end of a process.
constexpr seconds kOneCall(kSanitized ? 8 : 6);

class EventsSystemTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "runs in the simulated host only";
        (void)unlink(kDaemonLog);
        (void)mkdir("/var/run/ks", 0755);
    }
    // Sends SIGTERM and expects an orderly end within `limit`.
    static void stops_within(daemon_process* daemon, seconds limit) {
        const auto begin = steady_clock::now();
        EXPECT_EQ(daemon->stop(), 0);
        EXPECT_LE(steady_clock::now() - begin, limit);
        EXPECT_FALSE(queue_exists(kNotifyQueue));
        EXPECT_FALSE(queue_exists(kEventQueue));
    }
    static bool answers_soon() {
        const auto begin = steady_clock::now();
        std::string reply;
        return call_service(kMain, "test", "", &reply) == 0 && call_service(kMail, "test", "", &reply) == 0 &&
               steady_clock::now() - begin < seconds(2);
    }
    std::string reply_;
};

Json::Value parsed(const std::string& text) {
    Json::Value root;
    std::istringstream(text) >> root;
    return root;
}

TEST_F(EventsSystemTest, MakesBothQueuesWithMode0644AndRemovesThem) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    for (const int key : {kNotifyQueue, kEventQueue}) {
        msqid_ds status = {};
        ASSERT_EQ(msgctl(msgget(key, 0), IPC_STAT, &status), 0) << key;
        EXPECT_EQ(status.msg_perm.mode & 0777U, 0644U) << key;
    }
    stops_within(&daemon, seconds(5));
}

TEST_F(EventsSystemTest, EachKindOfRecordReachesTheNotificationService) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const notify_listener listener;
    ASSERT_TRUE(post(kEventQueue, host_record::event(1700000000, "alice", "door opened").number32(12, 2)));
    ASSERT_EQ(notify_listener::wait_for(1).size(), 1U);
    ASSERT_TRUE(post(kEventQueue, host_record::connection(1700000000, "bob", "login").number32(2484, 3)));
    ASSERT_EQ(notify_listener::wait_for(2).size(), 2U);
    ASSERT_TRUE(post(kNotifyQueue, host_record::notification(7, 8, 1, "extra")));
    EXPECT_THAT(
        notify_listener::wait_for(3),
        ElementsAre(
            Pair("notify_log",
                 R"({"content":"door opened","level":2,"method":"notify","nas_ip":"---","nas_name":"---",)"
                 R"("source_ip":"","source_name":"","time":"1700000000000","user":"alice"})"
                 "\n"),
            Pair("notify_conn", R"({"action":0,"content":"login","level":0,"nas_ip":"---","nas_name":"---","serv":3,)"
                                R"("source_ip":"","source_name":"","time":"1700000000001","user":"bob"})"
                                "\n"),
            Pair("notify_event", testing::MatchesRegex(R"(.*"evbus_extra_info":"extra",.*"ret_flag":true\}.)"))));
    stops_within(&daemon, seconds(5));
    EXPECT_EQ(count_of(read_file(kDaemonLog), "fail"), 0U) << read_file(kDaemonLog);
}

TEST_F(EventsSystemTest, TheHostsProgramForPostingIsUnderstood) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const notify_listener listener;
    const char* command_lines[] = {
        "'" POST_EVENT
        "' log --time 5 --level -2 --user alice --source-ip 192.0.2.7 --source-name desk --content 'door open'",
        "'" POST_EVENT
        "' conn --time 5 --level 1 --user bob --source-ip ::1 --source-name gate --content login --serv 3 --action 4",
        "'" POST_EVENT "' notify --type 7 --action -8 --flag 1 --extra 'volume 1'",
        "'" POST_EVENT "' log --time 6 --count 30 --wait",
    };
    size_t expected = 0;
    for (const char* line : command_lines) {
        ASSERT_EQ(std::system(line), 0) << line;
        expected += expected < 3 ? 1 : 30;
        ASSERT_EQ(notify_listener::wait_for(expected).size(), expected) << line;
    }
    const auto requests = notify_listener::wait_for(expected);
    EXPECT_EQ(requests[0].second,
              R"({"content":"door open","level":-2,"method":"notify","nas_ip":"---","nas_name":"---",)"
              R"("source_ip":"192.0.2.7","source_name":"desk","time":"5000","user":"alice"})"
              "\n");
    EXPECT_EQ(requests[1].second, R"({"action":4,"content":"login","level":1,"nas_ip":"---","nas_name":"---","serv":3,)"
                                  R"("source_ip":"::1","source_name":"gate","time":"5001","user":"bob"})"
                                  "\n");
    EXPECT_THAT(requests[2].second, testing::StartsWith(R"({"evbus_action":-8,"evbus_extra_info":"volume 1",)"));
    EXPECT_THAT(requests.back().second, HasSubstr(R"("time":"6029")"));
    stops_within(&daemon, seconds(5));
    EXPECT_NE(std::system("'" POST_EVENT "' log 2>/dev/null"), 0) << "without the queue";
}

// What producer `who` posts as its record `number`: a bit of everything.
host_record stress_record(int who, int number) {
    const std::string content =
        "record " + std::to_string(number) + " " + std::string(static_cast<size_t>(number % 900), 'x');
    const std::string user = "producer-" + std::to_string(who);
    if (number % 3 == 0) {
        return host_record::connection(1700000000 + number / 7, user, content)
            .number32(1252, number)
            .number32(2484, -number)
            .number32(2488, who)
            .text(1394, "source");
    }
    return host_record::event(1700000000 + number / 7, user, content).number32(12, number).text(154, "source");
}

// The object that has to come of it, without its time.
Json::Value stress_json(int who, int number) {
    Json::Value json;
    json["level"] = number;
    json["user"] = "producer-" + std::to_string(who);
    json["source_ip"] = "";
    json["source_name"] = "source";
    json["nas_ip"] = "---";
    json["nas_name"] = "---";
    json["content"] = "record " + std::to_string(number) + " " + std::string(static_cast<size_t>(number % 900), 'x');
    if (number % 3 == 0) {
        json["serv"] = -number;
        json["action"] = who;
    } else {
        json["method"] = "notify";
    }
    return json;
}

TEST_F(EventsSystemTest, NoRecordOfTwoBusyProducersIsLostChangedOrOutOfOrder) {
    const int each = static_cast<int>(setting("VEXPROD_EVENT_RECORDS", 20000)) / 2;
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    int gate[2]; // opens when the notification service is up: what comes earlier is dropped by rule
    ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
    std::vector<side_process> producers;
    for (const int who : {0, 1}) {
        producers.emplace_back([who, each, &gate] {
            close(gate[1]);
            char byte = 0;
            (void)!read(gate[0], &byte, 1);
            for (int number = 0; number < each; ++number) {
                if (!post(kEventQueue, stress_record(who, number))) {
                    _exit(1);
                }
            }
        });
    }
    const notify_listener listener;
    close(gate[0]);
    close(gate[1]);
    const auto requests = notify_listener::wait_for(2 * static_cast<size_t>(each), std::chrono::minutes(4));
    for (side_process& producer : producers) {
        EXPECT_EQ(producer.join(), 0);
    }
    ASSERT_EQ(requests.size(), 2 * static_cast<size_t>(each));

    std::array<int, 2> next = {0, 0};
    long last_second = 0;
    unsigned counter = 0;
    for (const auto& [command, text] : requests) {
        Json::Value json = parsed(text);
        const int who = json["user"].asString() == "producer-1" ? 1 : 0;
        const int number = next[static_cast<size_t>(who)]++;
        const long second = 1700000000 + number / 7;
        counter = second == last_second ? (counter + 1) % 1000 : 0;
        last_second = second;
        char stamp[40];
        (void)snprintf(stamp, sizeof(stamp), "%ld%03u", second, counter);
        ASSERT_EQ(json["time"].asString(), stamp);
        json.removeMember("time");
        ASSERT_EQ(json, stress_json(who, number));
        ASSERT_EQ(command, number % 3 == 0 ? "notify_conn" : "notify_log");
    }
    EXPECT_EQ(next[0], each);
    EXPECT_EQ(next[1], each);
    printf("relayed %d + %d records\n", next[0], next[1]);
    stops_within(&daemon, seconds(5));
    EXPECT_EQ(count_of(read_file(kDaemonLog), "fail"), 0U);
}

TEST_F(EventsSystemTest, WithoutAServiceEveryRecordIsLoggedAndTheDaemonGoesOn) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(
            post(kEventQueue, i % 2 == 0 ? host_record::event(i, "u", "c") : host_record::connection(i, "u", "c")));
        ASSERT_TRUE(post(kNotifyQueue, host_record::notification(i, 1, 1, "x")));
    }
    EXPECT_TRUE(wait_until([] {
        const std::string log = read_file(kDaemonLog);
        return count_of(log, "] eventlog_handler fail\n") == 200;
    })) << read_file(kDaemonLog);
    const std::string log = read_file(kDaemonLog);
    EXPECT_EQ(count_of(log, " [eventlog_handler]["), 100U);
    EXPECT_EQ(count_of(log, " [notify_handler]["), 100U);
    EXPECT_EQ(count_of(daemon.standard_error(), "str_publish_buf=["), 100U);
    EXPECT_TRUE(answers_soon());
    stops_within(&daemon, kOneCall);
}

TEST_F(EventsSystemTest, AServiceThatNeverAnswersDelaysNeitherRequestsNorTheStop) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    // A process, so that it can be stopped as a hung one is: the kernel still takes connections for it.
    const side_process service([] {
        const notify_listener listener(notify_listener::manner::is_silent);
        pause();
    });
    ASSERT_TRUE(wait_until([] { return file_exists(socket_path("VexHubServer_notify-vexprod")); }));
    ASSERT_TRUE(post(kEventQueue, host_record::event(1, "u", "c")));
    ASSERT_TRUE(post(kNotifyQueue, host_record::notification(1, 1, 1, "x")));
    EXPECT_TRUE(answers_soon());
    EXPECT_TRUE(wait_until([] { return count_of(read_file(kDaemonLog), "] eventlog_handler fail\n") == 2; }));

    // Stopped in the middle of two calls that take their full time-out, with more to come. A record that has been taken
    // out of its queue is not called for yet: the call's socket is waited for.
    const stopped_process stopped(service.pid());
    const size_t idle = sockets_of(daemon.pid());
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(post(kNotifyQueue, host_record::notification(1, 1, 1, "x")));
    }
    ASSERT_TRUE(wait_until([&] { return sockets_of(daemon.pid()) == idle + 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500)); // so that the two calls do not end together
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(post(kEventQueue, host_record::event(1, "u", "c")));
    }
    ASSERT_TRUE(wait_until([&] { return sockets_of(daemon.pid()) == idle + 2; }));
    EXPECT_TRUE(answers_soon());
    stops_within(&daemon, kOneCall);
    EXPECT_EQ(count_of(read_file(kDaemonLog), "] eventlog_handler fail\n"), 4U) << "no call began after the stop";
}

TEST_F(EventsSystemTest, AStoppedServiceWithoutRoomDelaysTheStopByOneCall) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const side_process service([] {
        const notify_listener listener;
        pause();
    });
    const std::string path = socket_path("VexHubServer_notify-vexprod");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto connected = [&address] {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0; // and stays open
    };
    ASSERT_TRUE(wait_until(connected));
    const stopped_process stopped(service.pid());
    ASSERT_TRUE(wait_until([&] { return !connected(); })) << "its backlog never filled up";
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(post(kEventQueue, host_record::event(1, "u", "c")));
        ASSERT_TRUE(post(kNotifyQueue, host_record::notification(1, 1, 1, "x")));
    }
    ASSERT_TRUE(wait_until([] { return queue_length(kEventQueue) == 2 && queue_length(kNotifyQueue) == 2; }));
    EXPECT_TRUE(answers_soon());
    stops_within(&daemon, kOneCall);
}

TEST_F(EventsSystemTest, AnErrorStreamThatNobodyReadsDelaysNeitherRelaysNorTheStop) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const unique_fd unread(ends[0]);
    unique_fd error_output(ends[1]);
    daemon_process daemon({}, error_output.get());
    error_output.reset();
    ASSERT_TRUE(daemon.serves());
    ASSERT_TRUE(post(kEventQueue, host_record(1, 2489))); // cannot be received, which is said over and over
    ASSERT_TRUE(wait_until([&unread] {
        int held = 0;
        return ioctl(unread.get(), FIONREAD, &held) == 0 && held > 60000;
    })) << "the pipe never filled up";
    ASSERT_TRUE(post(kNotifyQueue, host_record::notification(1, 1, 1, "x"))); // says something as well
    EXPECT_TRUE(wait_until([] { return count_of(read_file(kDaemonLog), "] eventlog_handler fail\n") == 1; }));
    EXPECT_TRUE(answers_soon());
    stops_within(&daemon, kOneCall);
}

// Of what the daemon says on standard error the first line only: the file grows faster than it can be read.
std::string first_error_line(const daemon_process& daemon) {
    std::ifstream file("/proc/" + std::to_string(daemon.pid()) + "/fd/2");
    std::string line;
    std::getline(file, line);
    return line;
}

TEST_F(EventsSystemTest, ARecordOfTheWrongSizeDoesNotKeepTheDaemonFromStopping) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    ASSERT_TRUE(post(kEventQueue, host_record(1, 2489)));
    EXPECT_TRUE(wait_until([&] {
        return first_error_line(daemon).rfind("msgrcv Error\xEF\xBC\x9A"
                                              "Argument list too long(7), msgid:",
                                              0) == 0;
    }));
    EXPECT_TRUE(answers_soon());
    stops_within(&daemon, seconds(5));
}

// The sizes as the host's programs know them: 144 bytes after the type word for a notification, 2488 for an event.
TEST_F(EventsSystemTest, ARecordOfExactlyItsQueuesSizeIsRelayedAndOneByteMoreIsNot) {
    const struct {
        int key;
        unsigned long body;
        const char* command;
    } queues[] = {{kNotifyQueue, 144, "notify_event"}, {kEventQueue, 2488, "notify_log"}};
    for (const auto& queue : queues) {
        daemon_process daemon;
        ASSERT_TRUE(daemon.serves());
        const notify_listener listener;
        const int id = msgget(queue.key, 0);
        ASSERT_TRUE(post(queue.key, host_record(1, queue.body + 1)));
        const std::string complaint = "msgrcv Error\xEF\xBC\x9A"
                                      "Argument list too long(7), msgid:" +
                                      std::to_string(id);
        EXPECT_TRUE(wait_until([&] { return first_error_line(daemon) == complaint; })) << first_error_line(daemon);
        EXPECT_EQ(queue_length(queue.key), 1) << "it stays in the queue";
        // Taken out here, it makes room for one that fits; what comes first at the listener is that one.
        std::vector<char> taken(sizeof(long) + queue.body + 1);
        ASSERT_EQ(msgrcv(id, taken.data(), queue.body + 1, 0, IPC_NOWAIT), static_cast<ssize_t>(queue.body + 1));
        ASSERT_TRUE(post(queue.key, host_record(1, queue.body)));
        const auto requests = notify_listener::wait_for(1);
        ASSERT_EQ(requests.size(), 1U);
        EXPECT_EQ(requests[0].first, queue.command);
        stops_within(&daemon, seconds(5));
        EXPECT_EQ(notify_listener::wait_for(1).size(), 1U);
    }
}

TEST_F(EventsSystemTest, WhatAKilledDaemonLeftInTheQueuesIsRelayedByTheNext) {
    {
        daemon_process daemon;
        ASSERT_TRUE(daemon.serves());
        kill(daemon.pid(), SIGKILL);
        const int status = daemon.wait();
        ASSERT_TRUE(WIFSIGNALED(status));
    }
    EXPECT_TRUE(file_exists(socket_path(kMain)));
    EXPECT_TRUE(file_exists(socket_path(kMail)));
    ASSERT_TRUE(post(kEventQueue, host_record::event(5, "early", "c")));
    ASSERT_TRUE(post(kNotifyQueue, host_record::notification(9, 1, 1, "early")));
    const notify_listener listener;
    daemon_process next;
    ASSERT_TRUE(next.serves());
    const auto requests = notify_listener::wait_for(2);
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_THAT(requests[0].second + requests[1].second, HasSubstr("\"user\":\"early\""));
    EXPECT_THAT(requests[0].second + requests[1].second, HasSubstr("\"evbus_extra_info\":\"early\""));
    stops_within(&next, seconds(5));
    EXPECT_FALSE(file_exists(socket_path(kMain)));
    EXPECT_TRUE(file_exists(socket_path(kMail))) << "the mail service is left to the end of the process";
}

TEST_F(EventsSystemTest, ItsChildrenHaveNoSignalBlockedOrIgnored) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    ASSERT_EQ(call_service(kMain, "exec_cli", R"({"command":[")" CHILD_PROBE R"(","report"]})", &reply_), 0U);
    const std::string result = parsed(reply_)["result"].asString();
    EXPECT_THAT(result, HasSubstr("SigBlk=0000000000000000\n"));
    EXPECT_THAT(result, HasSubstr("SigIgn=0000000000000000\n"));
    stops_within(&daemon, seconds(5));
}

TEST_F(EventsSystemTest, TheStopSignalsAreBlockedInAllThreadsButThoseThatAreMeantToTakeThem) {
    daemon_process daemon;
    ASSERT_TRUE(daemon.serves());
    const unsigned long stop_signals = (1UL << (SIGINT - 1)) | (1UL << (SIGTERM - 1));
    const auto takers = [&] {
        size_t count = 0;
        for (const auto& task :
             std::filesystem::directory_iterator("/proc/" + std::to_string(daemon.pid()) + "/task")) {
            const std::string status = read_file(task.path() / "status");
            if (status.find("SigBlk:") == std::string::npos) {
                continue; // a request's thread, and it has ended
            }
            const unsigned long blocked = std::stoul(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
            count += (blocked & stop_signals) == 0 ? 1 : 0;
        }
        return count;
    };
    // The two producer threads; under a sanitizer also its own.
    EXPECT_TRUE(wait_until([&] { return kSanitized || takers() == 2; })) << takers();
    EXPECT_GE(takers(), 2U);
    stops_within(&daemon, seconds(5));
}

} // namespace
