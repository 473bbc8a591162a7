// The relays against a real notification service, or none, or one that does not answer.
#include "host_records.h"
#include "kservice.h"
#include "log.h"
#include "notify_listener.h"
#include "relays.h"
#include "test_files.h"
#include "unique_fd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <set>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Pair;

constexpr const char* kLog = "/tmp/relays-log/.lyn_ks_vexprod.log";

// One call's 5 seconds, with room for a busy machine, but for less than a second more or less than was agreed.
constexpr std::chrono::milliseconds kCallAtLeast(4900);
constexpr std::chrono::milliseconds kCallAtMost(5900);

class RelaysTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr);
        log_set_dir("/tmp/relays-log");
        (void)unlink(kLog);
        (void)get_datetime_count(-1); // whatever second an earlier test used last
    }
    static std::string time_of(const std::string& json) {
        const size_t at = json.find(R"("time":")") + 8;
        return json.substr(at, json.find('"', at) - at);
    }
};

host_record full_event() {
    return host_record(1, 2488)
        .number32(8, 77) // reserved
        .number32(12, 3)
        .number64(16, 1700000000)
        .text(24, "alice")
        .text(89, "192.0.2.7")
        .text(154, "front desk")
        .text(219, "door opened")
        // The other half, which must not show.
        .number32(1252, 9)
        .number64(1256, 42)
        .text(1264, "bob")
        .text(1459, "no")
        .number32(2484, 5)
        .number32(2488, 6);
}

TEST_F(RelaysTest, AnEventLogRecordIsSentAsNotifyLog) {
    const notify_listener listener;
    eventlog_handler(full_event().data());
    EXPECT_THAT(
        notify_listener::wait_for(1),
        ElementsAre(Pair("notify_log",
                         R"({"content":"door opened","level":3,"method":"notify","nas_ip":"---","nas_name":"---",)"
                         R"("source_ip":"192.0.2.7","source_name":"front desk","time":"1700000000000","user":"alice"})"
                         "\n")));
    EXPECT_FALSE(file_exists(kLog)) << "nothing to say when all went well";
}

TEST_F(RelaysTest, AConnectionLogRecordIsSentAsNotifyConnWithServiceAndActionAndWithoutMethod) {
    const notify_listener listener;
    host_record record = host_record(2, 2488)
                             .number32(12, 9) // the other half
                             .number64(16, 42)
                             .text(24, "bob")
                             .number32(1248, 77) // reserved
                             .number32(1252, -4)
                             .number64(1256, 1700000001)
                             .text(1264, "carol")
                             .text(1329, "2001:db8::1")
                             .text(1394, "gate")
                             .text(1459, "login")
                             .number32(2484, 12)
                             .number32(2488, -7);
    eventlog_handler(record.data());
    EXPECT_THAT(
        notify_listener::wait_for(1),
        ElementsAre(Pair("notify_conn",
                         R"({"action":-7,"content":"login","level":-4,"nas_ip":"---","nas_name":"---","serv":12,)"
                         R"("source_ip":"2001:db8::1","source_name":"gate","time":"1700000001000","user":"carol"})"
                         "\n")));
}

TEST_F(RelaysTest, ANotificationIsSentAsNotifyEvent) {
    const notify_listener listener;
    notify_handler(host_record::notification(11, -22, 1, "volume 1").number64(0, 99).data());
    const auto requests = notify_listener::wait_for(1);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].first, "notify_event");
    EXPECT_THAT(requests[0].second,
                MatchesRegex(R"(\{"evbus_action":-22,"evbus_extra_info":"volume 1",)"
                             R"("evbus_time":"[0-9]{2}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{6}",)"
                             R"("evbus_type":11,"method":"notify","ret_flag":true\})"
                             "\n"));
}

TEST_F(RelaysTest, OnlyAReturnFlagOf1MeansTrue) {
    const notify_listener listener;
    for (const int flag : {0, 1, 2, -1, 256}) {
        notify_handler(host_record::notification(1, 1, flag, "").data());
    }
    const auto requests = notify_listener::wait_for(5);
    ASSERT_EQ(requests.size(), 5U);
    for (size_t i = 0; i < requests.size(); ++i) {
        EXPECT_THAT(requests[i].second, HasSubstr(i == 1 ? R"("ret_flag":true)" : R"("ret_flag":false)")) << i;
    }
}

// Year to second of `json`'s time.
std::string second_of(const std::string& json) {
    return json.substr(json.find(R"("evbus_time":")") + 14, 17);
}

std::string second_in(int hours_east) {
    const time_t now = time(nullptr) + time_t{hours_east} * 3600;
    tm parts = {};
    gmtime_r(&now, &parts);
    char text[32];
    (void)strftime(text, sizeof(text), "%y/%m/%d %H:%M:%S", &parts);
    return text;
}

TEST_F(RelaysTest, ANotificationCarriesTheLocalTimeAlsoAfterTheZoneChanged) {
    const notify_listener listener;
    for (const int hours_east : {5, -7, 0}) {
        setenv("TZ", ("TST" + std::to_string(-hours_east)).c_str(), 1); // west is positive in TZ
        std::string before;
        std::string after;
        std::string sent;
        size_t count = notify_listener::wait_for(0).size();
        do { // a second may end in between
            before = second_in(hours_east);
            notify_handler(host_record::notification(1, 1, 1, "").data());
            sent = second_of(notify_listener::wait_for(++count).back().second);
            after = second_in(hours_east);
        } while (before != after);
        EXPECT_EQ(sent, before) << hours_east;
    }
    unsetenv("TZ");
}

TEST_F(RelaysTest, TheMicrosecondsAreThoseOfEachNotification) {
    const notify_listener listener;
    std::set<std::string> fractions;
    for (int i = 0; i < 5; ++i) {
        notify_handler(host_record::notification(1, 1, 1, "").data());
    }
    for (const auto& request : notify_listener::wait_for(5)) {
        fractions.insert(request.second.substr(request.second.find(R"("evbus_time":")") + 14 + 18, 6));
    }
    EXPECT_GT(fractions.size(), 1U) << *fractions.begin();
}

TEST_F(RelaysTest, ANotificationLeavesItsTraceOnStandardError) {
    testing::internal::CaptureStderr();
    notify_handler(host_record::notification(1, 1, 1, "").data());
    const std::string trace = testing::internal::GetCapturedStderr();
    EXPECT_THAT(trace, MatchesRegex("str_publish_buf=\\[-?[0-9]+\\]  \n"));
}

TEST_F(RelaysTest, RecordsOfOneSecondAreNumberedAndANewSecondBeginsAt000) {
    const notify_listener listener;
    for (const int second : {1700000000, 1700000000, 1700000000, 1700000001, 1700000001, 1700000000}) {
        eventlog_handler(host_record::event(second, "u", "c").data());
    }
    std::vector<std::string> times;
    for (const auto& request : notify_listener::wait_for(6)) {
        times.push_back(time_of(request.second));
    }
    EXPECT_THAT(times, ElementsAre("1700000000000", "1700000000001", "1700000000002", "1700000001000", "1700000001001",
                                   "1700000000000"));
}

TEST_F(RelaysTest, EventAndConnectionRecordsShareTheNumbers) {
    const notify_listener listener;
    eventlog_handler(host_record::event(1700000000, "u", "c").data());
    eventlog_handler(host_record::connection(1700000000, "u", "c").data());
    const auto requests = notify_listener::wait_for(2);
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(time_of(requests[0].second), "1700000000000");
    EXPECT_EQ(time_of(requests[1].second), "1700000000001");
}

TEST_F(RelaysTest, TheRecordAfter1000OfOneSecondGets000Again) {
    for (unsigned i = 0; i < 1000; ++i) {
        ASSERT_EQ(get_datetime_count(1700000000), i);
    }
    const notify_listener listener;
    eventlog_handler(host_record::event(1700000000, "u", "c").data());
    const auto requests = notify_listener::wait_for(1);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(time_of(requests[0].second), "1700000000000");
}

// In a process of its own, started anew: what a counter says that nobody has used before.
TEST(SequenceStampDeathTest, TheVeryFirstRecordOfSecond0IsNumbered1) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const unsigned first = get_datetime_count(0);
            const unsigned second = get_datetime_count(0);
            const unsigned other = get_datetime_count(-5);
            _exit(first == 1 && second == 2 && other == 0 && get_datetime_count(0) == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(RelaysTest, ARecordOfAnotherTypeIsDroppedSilently) {
    const notify_listener listener;
    for (const std::int64_t type : {0, 3, -1, 99}) {
        host_record record = full_event();
        eventlog_handler(record.number64(0, type).data());
    }
    host_record record = full_event();
    eventlog_handler(record.number64(0, 0x100000001).data()); // all 64 bits count
    eventlog_handler(full_event().data());
    EXPECT_THAT(notify_listener::wait_for(1), ElementsAre(Pair("notify_log", testing::_)));
    EXPECT_FALSE(file_exists(kLog));
}

TEST_F(RelaysTest, TextsEndAtTheirFirstNulAndOneWithoutItRunsIntoTheNextFieldAtMostToTheRecordsEnd) {
    const notify_listener listener;
    const std::string full_user(65, 'u');
    host_record record = host_record::event(1, full_user, "c");
    eventlog_handler(record.text(89, "192.0.2.1").data());
    host_record tail = host_record::connection(1, "u", std::string(1024, 'c'));
    eventlog_handler(
        tail.number32(2484, 0x41414141).number32(2488, 0x41414141).text(2483, "x").text(2492, "yyyy").data());
    notify_handler(host_record::notification(1, 1, 1, std::string(132, 'e')).data());
    const auto requests = notify_listener::wait_for(3);
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_THAT(requests[0].second, HasSubstr("\"user\":\"" + full_user + "192.0.2.1\""));
    EXPECT_THAT(requests[1].second, HasSubstr("\"content\":\"" + std::string(1024, 'c') + "xAAAAAAAAyyyy\""));
    EXPECT_THAT(requests[2].second, HasSubstr("\"evbus_extra_info\":\"" + std::string(132, 'e') + "\""));
}

TEST_F(RelaysTest, AnyBytesInATextStillMakeOneLineOfJson) {
    const notify_listener listener;
    std::string all;
    for (int byte = 1; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    eventlog_handler(host_record::event(1, "a\"b\\c", all).data());
    const auto requests = notify_listener::wait_for(1);
    ASSERT_EQ(requests.size(), 1U);
    const std::string& text = requests[0].second;
    EXPECT_THAT(text, HasSubstr(R"("user":"a\"b\\c")"));
    EXPECT_THAT(text, HasSubstr(R"("content":"\u0001\u0002)"));
    EXPECT_EQ(text.find('\n'), text.size() - 1);
}

TEST_F(RelaysTest, WithoutTheServiceEveryRecordIsLoggedAndDropped) {
    eventlog_handler(full_event().data());
    eventlog_handler(host_record::connection(1, "u", "c").data());
    notify_handler(host_record::notification(1, 1, 1, "").data());
    const std::string log = read_file(kLog);
    EXPECT_THAT(
        log, MatchesRegex("(\\[[0-9]{5,}\\] \\[.{20}\\] \\[eventlog_handler\\]\\[[0-9]+\\] eventlog_handler fail\n){2}"
                          "\\[[0-9]{5,}\\] \\[.{20}\\] \\[notify_handler\\]\\[[0-9]+\\] eventlog_handler fail\n"));
}

TEST_F(RelaysTest, ARecordThatFailedIsNotSentLater) {
    eventlog_handler(host_record::event(1, "lost", "c").data());
    const notify_listener listener;
    eventlog_handler(host_record::event(2, "kept", "c").data());
    const auto requests = notify_listener::wait_for(1);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_THAT(requests[0].second, HasSubstr("kept"));
}

TEST_F(RelaysTest, AServiceThatNeverAnswersCostsFiveSecondsAndALogLine) {
    const notify_listener listener(notify_listener::manner::is_silent);
    const auto begin = steady_clock::now();
    eventlog_handler(full_event().data());
    const auto took = steady_clock::now() - begin;
    EXPECT_GE(took, kCallAtLeast);
    EXPECT_LT(took, kCallAtMost);
    EXPECT_THAT(read_file(kLog), HasSubstr("] eventlog_handler fail\n"));
}

// A service that accepts nobody and has no room left, as one that was stopped by a signal comes to be.
class full_service {
public:
    full_service() {
        ks_handle* handle =
            ks_create("VexHubServer_notify-vexprod", KS_PTHREAD_MODE, 1, [](const char*, ks_io*, int) { return 0; });
        std::strncpy(address_.sun_path, handle->sockfile, sizeof(address_.sun_path) - 1);
        ks_free(handle);
        (void)mkdir("/var/run/ks", 0755);
        address_.sun_family = AF_UNIX;
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof(address_)), 0);
        EXPECT_EQ(listen(listener_.get(), 1), 0);
        for (;;) {
            unique_fd caller(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            if (connect(caller.get(), reinterpret_cast<sockaddr*>(&address_), sizeof(address_)) != 0) {
                EXPECT_EQ(errno, EAGAIN);
                break;
            }
            callers_.push_back(std::move(caller));
        }
    }
    ~full_service() { unlink(address_.sun_path); }
    full_service(const full_service&) = delete;
    full_service& operator=(const full_service&) = delete;

private:
    sockaddr_un address_ = {};
    unique_fd listener_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::vector<unique_fd> callers_;
};

TEST_F(RelaysTest, AServiceWithoutRoomCostsFiveSecondsAndALogLine) {
    const full_service service;
    const auto begin = steady_clock::now();
    notify_handler(host_record::notification(1, 1, 1, "").data());
    const auto took = steady_clock::now() - begin;
    EXPECT_GE(took, kCallAtLeast);
    EXPECT_LT(took, kCallAtMost);
    EXPECT_THAT(read_file(kLog), MatchesRegex(".*\\[notify_handler\\]\\[[0-9]+\\] eventlog_handler fail\n"));
}

TEST_F(RelaysTest, ACallToAServiceWithoutRoomTimesOutAlsoWhileSignalsInterruptIt) {
    const full_service service;
    struct sigaction quiet = {};
    quiet.sa_handler = [](int) {};
    sigaction(SIGALRM, &quiet, nullptr);
    const itimerval every_20_ms = {{0, 20000}, {0, 20000}};
    setitimer(ITIMER_REAL, &every_20_ms, nullptr);
    const auto begin = steady_clock::now();
    EXPECT_EQ(ks_ez_call("VexHubServer_notify-vexprod", "x", nullptr, 0, nullptr, nullptr, 1, -1), 1U);
    const auto took = steady_clock::now() - begin;
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_GE(took, std::chrono::milliseconds(4900));
    EXPECT_LT(took, seconds(7));
}

TEST_F(RelaysTest, RelayingLeavesNoDescriptorBehind) {
    const auto open_descriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const notify_listener listener;
    // Callers go to the listener's workers in turn: afterwards each of them has come up.
    for (int i = 0; i < 8; ++i) {
        eventlog_handler(full_event().data());
    }
    (void)notify_listener::wait_for(8);
    const auto before = open_descriptors();
    for (int i = 0; i < 100; ++i) {
        eventlog_handler(full_event().data());
        notify_handler(host_record::notification(1, 1, 1, "").data());
    }
    (void)notify_listener::wait_for(208);
    EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before; })) << open_descriptors() << " " << before;
}

} // namespace
