// Requests that come at the same moment: each does its whole work, and the files they share stay whole.
#include "ask.h"
#include "fresh_file.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <system_error>
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

constexpr const char* kBanListFile = "/etc/default_config/apache/extra/vexcms_ip_ban_list.conf";

std::string ban_list(const std::string& address) {
    return "<LocationMatch \"/.*\">\norder allow,deny\ndeny from " + address + "\nallow from all\n</LocationMatch>\n";
}

std::atomic<int> ban_list_threads = 0;
std::atomic<pid_t> last_ban_list_thread = 0;

int watched_ban_list_handler(ks_io* io, int fd) {
    last_ban_list_thread = gettid();
    ++ban_list_threads;
    return hos_update_ip_ban_list_handler(io, fd);
}

// Whether a thread of this process waits for something.
bool sleeps(pid_t thread) {
    const std::string status = read_file("/proc/self/task/" + std::to_string(thread) + "/stat");
    return status.find(") S ") != std::string::npos;
}

class AtOnceTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        fs::remove_all(kLogs);
        fs::create_directories(kLogs);
    }
};

// Which file a descriptor is of.
ino_t file_of(const unique_fd& fd) {
    struct stat status = {};
    return fstat(fd.get(), &status) == 0 ? status.st_ino : 0;
}

TEST_F(AtOnceTest, EachOfTwoWritersGetsAFileOfItsOwn) {
    constexpr int kFiles = 1000;
    std::array<unique_fd, 2> files;
    std::atomic<int> arrived = 0;
    const auto wait_for_both = [&](int meeting) {
        ++arrived;
        while (arrived < 2 * meeting) {
            std::this_thread::yield();
        }
    };
    const auto write_many = [&](unique_fd& file) {
        for (int i = 0; i < kFiles; ++i) {
            wait_for_both(3 * i + 1);
            file = create_anew("/tmp/written-anew", 0600);
            wait_for_both(3 * i + 2);
            EXPECT_NE(file_of(file), 0U);
            EXPECT_TRUE(&file == &files[0] || file_of(files[0]) != file_of(files[1]));
            wait_for_both(3 * i + 3);
        }
    };
    std::thread other(write_many, std::ref(files[1]));
    write_many(files[0]);
    other.join();
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

// The ban list as a pipe: a list that is longer than the pipe stays on its way until the test reads on.
class BanListPipeTest : public AtOnceTest {
protected:
    void SetUp() override {
        AtOnceTest::SetUp();
        fs::remove(kBanListFile);
        ASSERT_EQ(mkfifo(kBanListFile, 0644), 0);
        pipe.reset(open(kBanListFile, O_RDWR | O_NONBLOCK | O_CLOEXEC)); // never at its end
        ASSERT_TRUE(pipe.ok());
        ban_list_threads = 0;
    }
    void TearDown() override { fs::remove(kBanListFile); }

    // Reads some more. @return False when there was nothing.
    bool read_on() {
        std::array<char, 65536> chunk;
        const ssize_t count = read(pipe.get(), chunk.data(), chunk.size());
        written.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return count > 0;
    }
    // While a list is on its way: its descriptor is of no child, nor in the place of a standard stream.
    static void expect_descriptors_of_this_request() {
        int found = 0;
        for (int fd = 0; fd < 100; ++fd) {
            std::error_code none_there;
            if (fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none_there) == kBanListFile) {
                ++found;
                EXPECT_GT(fd, STDERR_FILENO);
                EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << fd;
            }
        }
        EXPECT_EQ(found, 2) << "the test's and the handler's";
    }
    // Sends a list. It is counted as done, or as failed.
    std::thread send(const std::string& addresses) {
        return std::thread([this, addresses] {
            const auto reply = service.call(R"({"ip_list":")" + addresses + R"("})");
            ++(reply == "{\"result\":0}\n" ? done : failed);
        });
    }

    asking_service service{watched_ban_list_handler, 2};
    unique_fd pipe;
    std::string written;
    std::atomic<int> done = 0;
    std::atomic<int> failed = 0;
};

TEST_F(BanListPipeTest, AListIsWrittenWholeBeforeTheNext) {
    const std::string first(1000000, 'a');
    std::thread one = send(first);
    EXPECT_TRUE(wait_until([&] { return read_on(); })); // it is being written
    expect_descriptors_of_this_request();
    std::thread other = send("b");
    EXPECT_TRUE(wait_until([] { return ban_list_threads == 2 && sleeps(last_ban_list_thread); }));
    EXPECT_TRUE(wait_until([&] { return !read_on() && done + failed == 2; }));
    one.join();
    other.join();
    EXPECT_EQ(failed, 0);
    EXPECT_TRUE(written == ban_list(first) + ban_list("b")); // compared without being printed
}

TEST_F(BanListPipeTest, AListIsNoStandardStreamInAProcessWithoutOne) {
    const unique_fd standard_input(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    (void)close(STDIN_FILENO);
    std::thread one = send(std::string(1000000, 'a'));
    EXPECT_TRUE(wait_until([&] { return read_on(); })); // it is open
    expect_descriptors_of_this_request();
    EXPECT_TRUE(wait_until([&] { return !read_on() && done + failed == 1; }));
    one.join();
    (void)dup2(standard_input.get(), STDIN_FILENO);
    EXPECT_EQ(failed, 0);
}

std::atomic<int> interruptions = 0;

TEST_F(BanListPipeTest, AnInterruptedWriteGoesOn) {
    struct sigaction interrupting = {};
    struct sigaction before = {};
    interrupting.sa_handler = [](int /*signal*/) { ++interruptions; }; // and no SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &interrupting, &before), 0);
    interruptions = 0;
    const std::string full(static_cast<std::size_t>(fcntl(pipe.get(), F_GETPIPE_SZ)), 'x');
    ASSERT_EQ(write(pipe.get(), full.data(), full.size()), static_cast<ssize_t>(full.size()));
    std::thread one = send("a");
    EXPECT_TRUE(wait_until([] { return ban_list_threads == 1 && sleeps(last_ban_list_thread); }));
    EXPECT_EQ(tgkill(getpid(), last_ban_list_thread, SIGUSR1), 0);
    EXPECT_TRUE(wait_until([&] { return interruptions == 1; }));
    EXPECT_TRUE(wait_until([&] { return !read_on() && done + failed == 1; }));
    one.join();
    (void)sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(written, full + ban_list("a"));
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
