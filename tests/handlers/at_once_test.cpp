// Requests that come at the same moment: each does its whole work, and the files they share stay whole.
#include "ask.h"
#include "fresh_file.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::UnorderedElementsAreArray;

const std::string kLogs = "/tmp/.vexsurveillance_log/";
// Requests that come at once do not always meet: many do, or often.
constexpr int kRounds = 20;
constexpr int kMany = 8;

// Counts how often a file of one name was made in a folder.
class creation_watch {
public:
    creation_watch(const std::string& folder, std::string name)
        : watch_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), name_(std::move(name)) {
        // Removals are watched so that two creations are never one event.
        EXPECT_GE(inotify_add_watch(watch_.get(), folder.c_str(), IN_CREATE | IN_DELETE), 0);
    }
    // @return Creations since the last call.
    int count() {
        int found = 0;
        alignas(inotify_event) char events[16384];
        for (ssize_t size = 0; (size = read(watch_.get(), events, sizeof events)) > 0;) {
            for (ssize_t at = 0; at < size;) {
                inotify_event event = {};
                std::memcpy(&event, events + at, sizeof event);
                found += (event.mask & IN_CREATE) != 0 && name_ == events + at + sizeof event ? 1 : 0;
                at += static_cast<ssize_t>(sizeof event + event.len);
            }
        }
        return found;
    }

private:
    unique_fd watch_;
    std::string name_;
};

std::string register_request(const std::string& id) {
    return R"({"provide_id":")" + id + R"(","command":"register"})";
}

std::string register_record(const std::string& id) {
    return "cmd=[register]\nprovide_id=[" + id +
           "]\nstr_cloud_analysis_register=[/usr/local/bin/zanalytic_tool register -p " + id +
           " -c /share/.@analytic]\nret_val=[0]\n";
}

const std::string kSpool = "/tmp/vexsurveillance_sendmail/";

std::string mail_request(const std::string& name) {
    return R"({"user":"","pwd":"","config_file":")" + name + R"(.conf","content_file":")" + name + R"(.txt"})";
}

std::string mail_record(const std::string& name) {
    return "str_usr=[]\nstr_pwd=[]\nstr_conf_path=[" + kSpool + name + ".conf]\nstr_content_path=[" + kSpool + name +
           ".txt]\nstr_cmd_sendmail=[]\nstr_cmd_rm=[]\nret_val=[0]\n";
}

class AtOnceTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        fs::remove_all(kLogs);
        fs::create_directories(kLogs);
    }
};

TEST_F(AtOnceTest, EachOfTwoWritersGetsAFileOfItsOwn) {
    constexpr int kFiles = 1000;
    std::atomic<int> arrived = 0;
    std::atomic<int> made = 0;
    const auto write_many = [&] {
        for (int i = 1; i <= kFiles; ++i) {
            ++arrived;
            while (arrived < 2 * i) { // the other one is as far
                std::this_thread::yield();
            }
            made += create_anew("/tmp/written-anew", 0600).ok() ? 1 : 0;
        }
    };
    std::thread other(write_many);
    write_many();
    other.join();
    EXPECT_EQ(made, 2 * kFiles);
}

TEST_F(AtOnceTest, BothEventsAreLogged) {
    const host_tool tool("/sbin/log_tool");
    fs::remove("/var/log/event.log");
    EXPECT_THAT(ask_at_once(hos_system_call_log_tool_handler,
                            {R"({"log_type":1,"log_mseg":"one"})", R"({"log_type":2,"log_mseg":"two"})"}),
                ElementsAre("{\"result\":0}\n", "{\"result\":0}\n"));
    EXPECT_EQ(tool.calls().size(), 2U);
    EXPECT_THAT(read_file("/var/log/event.log"), AnyOf("-t 1 -a one\n-t 2 -a two\n", "-t 2 -a two\n-t 1 -a one\n"));
    EXPECT_EQ(logged().size(), 8U);
}

TEST_F(AtOnceTest, BothConnectionsAreLogged) {
    const host_tool tool("/sbin/conn_log_tool");
    fs::remove("/var/log/connection.log");
    const auto request = [](const std::string& user) {
        return R"({"log_type":1,"service_type":2,"action_type":3,"log_mseg":"m","user_name":")" + user +
               R"(","IP":"i","computer_name":"c"})";
    };
    EXPECT_THAT(ask_at_once(hos_system_conn_log_tool_handler, {request("anna"), request("ben")}),
                ElementsAre("{\"result\":0}\n", "{\"result\":0}\n"));
    EXPECT_EQ(tool.calls().size(), 2U);
    const std::string anna = "-t 1 -i 2 -n 3 -a m -u anna -p i -m c\n";
    const std::string ben = "-t 1 -i 2 -n 3 -a m -u ben -p i -m c\n";
    EXPECT_THAT(read_file("/var/log/connection.log"), AnyOf(anna + ben, ben + anna));
    EXPECT_EQ(logged().size(), 2U);
}

// Lists so long that one is still being written when the next is begun: all that come meanwhile would empty the file
// first and write then, a short list over a long one.
TEST_F(AtOnceTest, OfManyBanListsOneStandsWhole) {
    const std::string file = "/etc/default_config/apache/extra/vexcms_ip_ban_list.conf";
    strings requests;
    strings possible;
    for (int i = 1; i <= kMany; ++i) {
        const std::string address(static_cast<std::size_t>(i) * 500000, static_cast<char>('a' + i));
        requests.push_back(R"({"ip_list":")" + address + R"("})");
        possible.push_back("<LocationMatch \"/.*\">\norder allow,deny\ndeny from " + address +
                           "\nallow from all\n</LocationMatch>\n");
    }
    for (int round = 0; round < 5; ++round) {
        EXPECT_THAT(ask_at_once(hos_update_ip_ban_list_handler, requests),
                    Each(std::optional<std::string>("{\"result\":0}\n")));
        const std::string written = read_file(file);
        EXPECT_EQ(std::count(possible.begin(), possible.end(), written), 1) << written.size() << " bytes";
    }
}

TEST_F(AtOnceTest, EveryRegistrationIsRecordedAndTheLastRecordIsWhole) {
    host_tool agent("/usr/local/bin/zanalytic_tool");
    creation_watch records(kLogs, "cloud_analysis_register.dbg");
    strings requests;
    strings possible;
    for (int i = 0; i < kMany; ++i) {
        const std::string id = "p" + std::to_string(i);
        requests.push_back(register_request(id));
        possible.push_back(register_record(id));
    }
    for (int round = 0; round < kRounds; ++round) {
        agent.clear();
        EXPECT_THAT(ask_at_once(hos_system_call_cloud_analysis_register_handler, requests),
                    Each(std::optional<std::string>("{\"result\":0}\n")));
        EXPECT_EQ(agent.calls().size(), requests.size());
        EXPECT_EQ(records.count(), kMany);
        EXPECT_THAT(possible, Contains(read_file(kLogs + "cloud_analysis_register.dbg")));
    }
}

TEST_F(AtOnceTest, EveryMailIsSentAndRecordedAndTheLastRecordIsWhole) {
    fs::remove_all(kSpool);
    fs::create_directories(kSpool);
    host_tool program("/usr/sbin/sendmail");
    creation_watch records(kLogs, "sendmail.dbg");
    strings requests;
    strings mails;
    strings possible;
    for (int i = 0; i < kMany; ++i) {
        const std::string name = "m" + std::to_string(i);
        requests.push_back(mail_request(name));
        mails.push_back("mail " + name);
        possible.push_back(mail_record(name));
    }
    for (int round = 0; round < kRounds; ++round) {
        program.clear();
        program.reads_stdin().exits(0);
        for (int i = 0; i < kMany; ++i) {
            write_file(kSpool + "m" + std::to_string(i) + ".conf", "settings");
            write_file(kSpool + "m" + std::to_string(i) + ".txt", mails[static_cast<std::size_t>(i)]);
        }
        EXPECT_THAT(ask_at_once(hos_sendmail_handler, requests), Each(std::optional<std::string>("{\"result\":0}\n")));
        strings sent;
        for (const tool_call& call : program.calls()) {
            sent.push_back(call.stdin_text);
        }
        EXPECT_THAT(sent, UnorderedElementsAreArray(mails));
        EXPECT_EQ(records.count(), kMany);
        EXPECT_THAT(possible, Contains(read_file(kLogs + "sendmail.dbg")));
        EXPECT_TRUE(fs::is_empty(kSpool));
    }
}

} // namespace
