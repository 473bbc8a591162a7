// ksctl as its users have it: the real program against real services.
#include "kservice.h"
#include "run_program.h"
#include "stopped_process.h"
#include "wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

finished ksctl(std::vector<std::string> arguments, const std::string& input = "") {
    arguments.insert(arguments.begin(), KSCTL_PROGRAM);
    return run_program(arguments, input);
}

// What a service does with a request is decided by the command alone, so that workers share nothing with the test.
int serve(const char* command, ks_io* io, int fd) {
    size_t size = 0;
    const char* text = static_cast<const char*>(ks_io_read(io, &size));
    const std::string request(text != nullptr ? text : "", size);
    const std::string what = command;
    std::string reply;
    if (what == "echo") {
        reply = request;
    } else if (what == "json") {
        reply = R"({"z":1.50,"a":[],"m":{"k":"v: {\"}","n":[1,-2e3]},"o":{}})";
    } else if (what == "bytes") {
        reply = std::string("\x00\xFF{not json\n\n", 13);
    } else if (what == "print") {
        (void)!write(fd, "printed", 7);
        reply = "done";
    } else if (what == "test" || what == "late") {
        reply = "tested";
    } else if (what == "has_fd") {
        reply = fd >= 0 ? "yes" : "no";
    }
    if (what == "late") {
        std::this_thread::sleep_for(std::chrono::seconds(6));
    }
    if (what == "never") { // until the caller gives up
        while (ks_io_alive(io) != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    } else if (what != "hang_up") {
        ks_io_realloc(io, 0);
        EXPECT_EQ(ks_io_write(io, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
        ks_reply(io);
    }
    if (fd >= 0) {
        close(fd);
    }
    ks_io_free(io);
    return 0;
}

class KsctlTest : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "ksctl-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        name_ = "@" + folder_ + "/s";
    }
    void TearDown() override {
        if (service_ != nullptr) {
            ks_free(service_);
        }
        std::filesystem::remove_all(folder_);
    }
    void start_service(const std::string& name) {
        service_ = ks_create(name.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, serve);
        ks_start(service_);
    }

    std::string folder_;
    std::string name_;
    ks_handle* service_ = nullptr;
};

// A socket that is served by the test itself, byte by byte.
class raw_service {
public:
    explicit raw_service(const std::string& path) : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
    }
    ~raw_service() {
        close(listener_);
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    raw_service(const raw_service&) = delete;
    raw_service& operator=(const raw_service&) = delete;

    void serve_one(std::function<void(int)> talk) {
        thread_ = std::thread([this, talk = std::move(talk)] {
            const int caller = accept(listener_, nullptr, nullptr);
            talk(caller);
            close(caller);
        });
    }

private:
    int listener_;
    std::thread thread_;
};

int connect_to(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << strerror(errno);
    return fd;
}

// -1 = the service has too many connections to accept already.
int try_to_connect(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        return fd;
    }
    close(fd);
    return -1;
}

std::string content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// ---- call

TEST_F(KsctlTest, CallPrintsTheReplyByteForByte) {
    start_service(name_);
    const finished bytes = ksctl({"call", name_, "bytes"});
    EXPECT_EQ(bytes.status, 0);
    EXPECT_EQ(bytes.out, std::string("\x00\xFF{not json\n\n", 13));
    EXPECT_THAT(bytes.err, IsEmpty());
}

TEST_F(KsctlTest, CallTakesTheRequestFromArgumentFileAndStandardInput) {
    start_service(name_);
    std::ofstream(folder_ + "/request") << "from a file\n";
    EXPECT_EQ(ksctl({"call", name_, "echo", R"([{"a":1},2])"}).out, R"([{"a":1},2])");
    EXPECT_EQ(ksctl({"call", name_, "echo", "@" + folder_ + "/request"}).out, "from a file\n");
    EXPECT_EQ(ksctl({"call", name_, "echo", "-"}, std::string("a\0b", 3)).out, std::string("a\0b", 3));
    EXPECT_EQ(ksctl({"call", name_, "echo", "--", "-1"}).out, "-1");
}

TEST_F(KsctlTest, CallWithoutARequestSendsNothing) {
    start_service(name_);
    const finished call = ksctl({"call", name_, "echo"}, "not asked for");
    EXPECT_EQ(call.status, 0);
    EXPECT_THAT(call.out, IsEmpty());
}

TEST_F(KsctlTest, CommandMayBeNamedLikeASubcommand) {
    start_service(name_);
    EXPECT_EQ(ksctl({"call", name_, "echo", "list"}).out, "list");
    EXPECT_EQ(ksctl({"call", name_, "ping"}).status, 0);
}

TEST_F(KsctlTest, PrettyIndentsJsonAndKeepsOrderAndNumbers) {
    start_service(name_);
    EXPECT_EQ(ksctl({"call", name_, "json", "--pretty"}).out, R"({
  "z": 1.50,
  "a": [],
  "m": {
    "k": "v: {\"}",
    "n": [
      1,
      -2e3
    ]
  },
  "o": {}
}
)");
    EXPECT_EQ(ksctl({"call", name_, "echo", R"( {"a" : [ ] , "b":"\\"} )", "--pretty"}).out,
              "{\n  \"a\": [],\n  \"b\": \"\\\\\"\n}\n");
    EXPECT_EQ(ksctl({"call", name_, "echo", " 1.50", "--pretty"}).out, "1.50\n") << "a bare number is JSON, too";
}

TEST_F(KsctlTest, PrettyLeavesWhatIsNotJsonAlone) {
    start_service(name_);
    EXPECT_EQ(ksctl({"call", name_, "bytes", "--pretty"}).out, std::string("\x00\xFF{not json\n\n", 13));
    EXPECT_EQ(ksctl({"call", name_, "echo", R"({"a":1} x)", "--pretty"}).out, R"({"a":1} x)");
    const std::string deep(5000, '[');
    EXPECT_EQ(ksctl({"call", name_, "echo", deep, "--pretty"}).out, deep);
    EXPECT_THAT(ksctl({"call", name_, "echo", "--pretty"}).out, IsEmpty());
}

TEST_F(KsctlTest, OutputFileIsCreatedOrTruncatedAndHandedOver) {
    start_service(name_);
    const std::string path = folder_ + "/output";
    umask(022);
    EXPECT_EQ(ksctl({"call", name_, "print", "--output", path}).out, "done");
    EXPECT_EQ(content_of(path), "printed");
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0644));
    std::ofstream(path) << "something longer than before";
    EXPECT_EQ(ksctl({"call", name_, "print", "--output", path}).status, 0);
    EXPECT_EQ(content_of(path), "printed");
    EXPECT_EQ(ksctl({"call", name_, "has_fd", "--output", path}).out, "yes");
    EXPECT_EQ(ksctl({"call", name_, "has_fd"}).out, "no");
}

TEST_F(KsctlTest, CallOfAnAbsentServiceIsStatus12) {
    const finished call = ksctl({"call", name_, "echo"});
    EXPECT_EQ(call.status, 12);
    EXPECT_THAT(call.out, IsEmpty());
    EXPECT_EQ(call.err, "ksctl: no such service: " + name_ + " (" + folder_ +
                            "/s): No such file or directory; nothing is published there\n");
    { raw_service left_behind(folder_ + "/s"); }
    EXPECT_EQ(ksctl({"call", name_, "echo"}).err,
              "ksctl: no such service: " + name_ + " (" + folder_ +
                  "/s): Connection refused; it was started and is gone: nobody listens on the socket any more\n");
    EXPECT_EQ(ksctl({"call", "abc", "echo"}).err,
              "ksctl: no such service: abc (/var/run/ks/A9993E36.sock): No such file "
              "or directory; nothing is published there\n");
}

TEST_F(KsctlTest, AbsentServiceIsToldFromAMisspeltOne) {
    const auto why = [](const char* name) {
        const std::string error = ksctl({"call", name, "test"}).err;
        return error.substr(error.rfind("; ") + 2);
    };
    EXPECT_EQ(why("main"), "it has not been started\n");
    EXPECT_EQ(why("VexHubServer_notify-vexprod"), "it has not been started\n");
    EXPECT_EQ(why("VexHubServer-vexprd"), "did you mean VexHubServer-vexprod?\n");
    EXPECT_EQ(why("vexhubserver-notify"), "did you mean VexHubServer_notify-vexprod?\n");
    EXPECT_EQ(why("mial"), "did you mean mail?\n");
    EXPECT_EQ(why("Main"), "did you mean main?\n");
    EXPECT_THAT(ksctl({"ping", "main", "-c", "1"}).err, HasSubstr("; it has not been started\n"));
    EXPECT_THAT(ksctl({"wait", "main", "--timeout", "0"}).err, HasSubstr("; it has not been started\n"));
}

// As a user who is nobody's owner.
TEST_F(KsctlTest, ServiceBehindAClosedFolderIsNotAllowed) {
    const std::vector<std::string> nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    std::vector<std::string> argv = nobody;
    argv.emplace_back("/bin/true");
    if (run_program(argv).status != 0) {
        GTEST_SKIP() << "another user's id cannot be taken here: run as root";
    }
    // Where that user can read it, whatever the folders above the build are like.
    const std::string program = folder_ + "-ksctl";
    std::filesystem::copy_file(KSCTL_PROGRAM, program);
    start_service(name_);
    ASSERT_EQ(chmod(folder_.c_str(), 0700), 0);
    argv = nobody;
    argv.insert(argv.end(), {program, "call", name_, "echo"});
    const finished call = run_program(argv);
    EXPECT_EQ(call.status, 12);
    EXPECT_EQ(call.err, "ksctl: no such service: " + name_ + " (" + folder_ + "/s): Permission denied; " + folder_ +
                            " keeps others out (owner 0, mode 0700)\n");
    std::filesystem::remove(program);
}

TEST_F(KsctlTest, CallOfAPausedServiceIsStatus13) {
    start_service(name_);
    ks_pause(service_);
    const finished call = ksctl({"call", name_, "echo"});
    EXPECT_EQ(call.status, 13);
    EXPECT_EQ(call.err, "ksctl: service is paused: " + name_ + "\n");
    ks_resume(service_);
    EXPECT_EQ(ksctl({"call", name_, "echo"}).status, 0);
}

TEST_F(KsctlTest, CallThatIsRefusedIsStatus14) {
    raw_service service(folder_ + "/s");
    service.serve_one([](int caller) {
        std::array<char, 259> refused = {5};
        EXPECT_EQ(send(caller, refused.data(), refused.size(), MSG_NOSIGNAL), 259);
    });
    const finished call = ksctl({"call", name_, "echo"});
    EXPECT_EQ(call.status, 14);
    EXPECT_EQ(call.err, "ksctl: service refused the call: " + name_ + "\n");
}

TEST_F(KsctlTest, ConnectionThatEndsBeforeTheRequestIsTakenIsStatus15) {
    raw_service service(folder_ + "/s");
    service.serve_one([](int) {});
    const finished call = ksctl({"call", name_, "echo"});
    EXPECT_EQ(call.status, 15);
    EXPECT_EQ(call.err, "ksctl: connection failed before the request was taken: " + name_ + " (" + folder_ + "/s)\n");
}

TEST_F(KsctlTest, CallOfAnOverloadedServiceIsStatus16) {
    const rlimit many = {4096, 20000};
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::min(many.rlim_cur, limit.rlim_max);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    start_service(name_);
    std::vector<int> callers;
    callers.push_back(connect_to(folder_ + "/s"));
    std::array<char, 259> accepted{};
    ASSERT_EQ(recv(callers[0], accepted.data(), accepted.size(), MSG_WAITALL), 259); // it has the one worker now
    ASSERT_EQ(accepted[0], 7);
    // Whoever holds the worker gives way after two seconds, and a slow machine takes longer: until one is turned away.
    pollfd last = {-1, POLLIN, 0};
    do {
        callers.push_back(connect_to(folder_ + "/s"));
        last.fd = callers.back();
    } while (callers.size() < 3000 && poll(&last, 1, callers.size() > 1000 ? 100 : 0) == 0);
    const finished call = ksctl({"call", name_, "echo"});
    EXPECT_EQ(call.status, 16);
    EXPECT_EQ(call.err, "ksctl: service is busy: " + name_ + "\n");
    for (const int caller : callers) {
        close(caller);
    }
}

TEST_F(KsctlTest, ArgumentsTooLongForTheProtocolAreStatus17) {
    const finished name = ksctl({"call", std::string(65, 'n'), "echo"});
    EXPECT_EQ(name.status, 17);
    EXPECT_THAT(name.err, StartsWith("ksctl: bad argument: "));
    for (const std::string service : {name_.c_str(), "main"}) {
        const finished command = ksctl({"call", service, std::string(257, 'c')});
        EXPECT_EQ(command.status, 17);
        EXPECT_EQ(command.err, "ksctl: bad argument: a command has at most 256 characters, this one has 257\n");
    }
    start_service(name_);
    for (const std::vector<std::string>& words : {std::vector<std::string>{"call", name_, ""},
                                                  {"ping", name_, "--command", ""},
                                                  {"conform", name_, "--command", ""}}) {
        const finished none = ksctl(words);
        EXPECT_EQ(none.status, 17) << words[0];
        EXPECT_EQ(none.err, "ksctl: bad argument: the command has no name\n");
        EXPECT_THAT(none.out, IsEmpty());
    }
    ks_free(std::exchange(service_, nullptr));
    EXPECT_EQ(ksctl({"call", name_, std::string(256, 'c')}).status, 12);
    EXPECT_EQ(ksctl({"path", ""}).status, 17);
    EXPECT_EQ(ksctl({"path", "@"}).status, 17);
}

TEST_F(KsctlTest, RequestThatWasTakenButNotAnsweredIsStatus18) {
    start_service(name_);
    const finished call = ksctl({"call", name_, "hang_up"});
    EXPECT_EQ(call.status, 18);
    EXPECT_EQ(call.err, "ksctl: no reply: " + name_ + " took the request and ended the connection\n");
}

TEST_F(KsctlTest, CallGivesUpAfterFiveSecondsAtLeastWithStatus11) {
    start_service(name_);
    const auto begin = std::chrono::steady_clock::now();
    const finished call = ksctl({"call", name_, "never", "--timeout", "1"});
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(call.status, 11);
    EXPECT_EQ(call.err, "ksctl: time-out: " + name_ + " has the request, but gave no reply within 5 s\n");
    EXPECT_GE(took, std::chrono::seconds(5));
    EXPECT_LT(took, std::chrono::seconds(15));
}

// Connecting counts, too, and goes on when the library gives it up.
TEST_F(KsctlTest, CallTimesOutWhileTheBacklogIsFull) {
    raw_service full(folder_ + "/s");
    std::vector<int> callers;
    do {
        callers.push_back(try_to_connect(folder_ + "/s"));
    } while (callers.back() >= 0);
    callers.pop_back();
    const auto begin = std::chrono::steady_clock::now();
    const finished call = ksctl({"call", name_, "echo", "--timeout", "6"});
    EXPECT_EQ(call.status, 11);
    EXPECT_EQ(call.err, "ksctl: time-out: " + name_ + " took no request within 6 s\n");
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::seconds(6));
    EXPECT_LT(took, std::chrono::seconds(10)); // two of the library's own tries
    for (const int caller : callers) {
        close(caller);
    }
}

bool has_socket(const running_program& program) {
    const std::filesystem::directory_iterator descriptors("/proc/" + std::to_string(program.pid()) + "/fd");
    return std::any_of(begin(descriptors), end(descriptors), [](const auto& each) {
        std::error_code closed; // meanwhile
        return std::filesystem::read_symlink(each, closed).string().starts_with("socket:");
    });
}

// How often the process has gone to sleep: once for as long as it connects, again and again between tries of its own.
size_t sleeps_of(const running_program& program) {
    const std::string status = content_of("/proc/" + std::to_string(program.pid()) + "/status");
    const std::string label = "\nvoluntary_ctxt_switches:";
    const size_t found = status.find(label);
    return found == std::string::npos ? 0 : std::stoul(status.substr(found + label.size()));
}

// Also when the library has given up once and there is no time for another of its tries.
TEST_F(KsctlTest, CallIsMadeOnceTheBacklogHasRoom) {
    running_program listen({KSCTL_PROGRAM, "listen", name_});
    ASSERT_EQ(ksctl({"wait", name_}).status, 0);
    auto stopped = std::make_unique<stopped_process>(listen.pid());
    std::vector<int> callers;
    do {
        callers.push_back(try_to_connect(folder_ + "/s"));
    } while (callers.back() >= 0);
    callers.pop_back();
    running_program call({KSCTL_PROGRAM, "call", name_, "echo", "--timeout", "9"});
    EXPECT_TRUE(wait_until([&] { return has_socket(call); }));
    const size_t before = sleeps_of(call);
    EXPECT_TRUE(wait_until([&] { return sleeps_of(call) > before + 5; }));
    for (const int caller : callers) {
        close(caller);
    }
    stopped.reset();
    const finished ended = call.wait();
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(ended.out, "{}");
}

TEST_F(KsctlTest, TimeoutZeroWaitsWithoutALimit) {
    start_service(name_);
    const finished call = ksctl({"call", name_, "late", "--timeout", "0"});
    EXPECT_EQ(call.status, 0) << call.err;
    EXPECT_EQ(call.out, "tested");
}

// A reply says failure by three keys; one that is no JSON object says nothing.
TEST_F(KsctlTest, CheckedCallTellsAReplyThatSaysFailure) {
    start_service(name_);
    for (const char* reply :
         {R"({"error_msg":"x"})", R"({"error_code":-1})", R"({"result":-1})", R"({"result":32512})"}) {
        const finished call = ksctl({"call", name_, "echo", reply, "--check"});
        EXPECT_EQ(call.status, 19) << reply;
        EXPECT_EQ(call.out, reply);
        EXPECT_THAT(call.err, IsEmpty());
        EXPECT_EQ(ksctl({"call", name_, "echo", reply}).status, 0) << reply;
    }
    for (const char* reply :
         {R"({"result":0,"error_code":0})", R"({"result":0.0})", R"({"result":"text"})", "text", "-1", "[1]", ""}) {
        EXPECT_EQ(ksctl({"call", name_, "echo", "--check", "--", reply}).status, 0) << reply;
    }
}

TEST_F(KsctlTest, CallTellsWhenNobodyTookTheRequestInTime) {
    raw_service nobody(folder_ + "/s");
    const finished call = ksctl({"call", name_, "echo", "--timeout", "5"});
    EXPECT_EQ(call.status, 11);
    EXPECT_EQ(call.err, "ksctl: time-out: " + name_ + " took no request within 5 s\n");
}

TEST_F(KsctlTest, FilesThatCannotBeUsedAreStatus1) {
    start_service(name_);
    const finished unreadable = ksctl({"call", name_, "echo", "@" + folder_ + "/absent"});
    EXPECT_EQ(unreadable.status, 1);
    EXPECT_EQ(unreadable.err, "ksctl: cannot read " + folder_ + "/absent: No such file or directory\n");
    const finished directory = ksctl({"call", name_, "echo", "@" + folder_});
    EXPECT_EQ(directory.status, 1);
    EXPECT_EQ(directory.err, "ksctl: cannot read " + folder_ + ": Is a directory\n");
    EXPECT_EQ(ksctl({"call", name_, "echo", "@"}).err, "ksctl: cannot read @: No such file or directory\n");
    const finished unwritable = ksctl({"call", name_, "echo", "--output", folder_ + "/no/where"});
    EXPECT_EQ(unwritable.status, 1);
    EXPECT_EQ(unwritable.err, "ksctl: cannot write " + folder_ + "/no/where: No such file or directory\n");
}

// ksctl where no file may grow beyond 512 bytes, memory files included.
std::vector<std::string> under_a_limit(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {"/bin/sh", "-c", R"(ulimit -f 1; exec "$0" "$@")", KSCTL_PROGRAM};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

TEST_F(KsctlTest, RequestThatCannotBeStoredIsNotSentCutShort) {
    start_service(name_);
    const finished call = run_program(under_a_limit({"call", name_, "echo", std::string(2000, 'r')}));
    EXPECT_EQ(call.status, 1);
    EXPECT_THAT(call.out, IsEmpty());
    EXPECT_EQ(call.err, "ksctl: cannot store the request: File too large\n");
    EXPECT_EQ(run_program(under_a_limit({"call", name_, "echo", std::string(512, 'r')})).out, std::string(512, 'r'));
}

TEST_F(KsctlTest, ReplyThatListenCannotStoreIsNotSentCutShort) {
    running_program listen(under_a_limit({"listen", name_, "--reply", std::string(2000, 'r')}));
    ASSERT_EQ(ksctl({"wait", name_}).status, 0);
    EXPECT_EQ(ksctl({"call", name_, "command"}).status, 18);
    listen.kill(SIGTERM);
    const finished ended = listen.wait();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "command\n");
    EXPECT_EQ(ended.err, "ksctl: cannot store the reply: File too large\n");
}

// A part of a request or of a reply could be taken for another one.
TEST_F(KsctlTest, WhatCannotBeReadIsNotPrintedCutShort) {
    start_service(name_);
    // The loader takes a blank for the end of a name, and a sanitizer's library wants to be the first one.
    std::filesystem::copy_file(BROKEN_READ, folder_ + "/broken");
    const auto blind = [&](const std::vector<std::string>& arguments) {
        std::vector<std::string> argv = {
            "/bin/sh", "-c",
            R"(export LD_PRELOAD="$0" ASAN_OPTIONS="$ASAN_OPTIONS:verify_asan_link_order=0"; exec "$@")",
            folder_ + "/broken", KSCTL_PROGRAM};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return argv;
    };
    const finished call = run_program(blind({"call", name_, "test"}));
    EXPECT_EQ(call.status, 1);
    EXPECT_THAT(call.out, IsEmpty());
    EXPECT_EQ(call.err, "ksctl: cannot read the reply: Input/output error\n");

    const std::string name = name_ + "2";
    running_program listen(blind({"listen", name}));
    ASSERT_EQ(ksctl({"wait", name}).status, 0);
    EXPECT_EQ(ksctl({"call", name, "command", "a request"}).status, 18);
    listen.kill(SIGTERM);
    const finished ended = listen.wait();
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.out, IsEmpty());
    EXPECT_EQ(ended.err, "ksctl: cannot read the request: Input/output error\n");
}

TEST_F(KsctlTest, StandardOutputThatNobodyReadsIsStatus1) {
    start_service(name_);
    running_program call({KSCTL_PROGRAM, "call", name_, "echo", "-"});
    call.close_stdout();
    call.write_stdin("text");
    const finished ended = call.wait();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "ksctl: cannot write to standard output: Broken pipe\n");
}

TEST_F(KsctlTest, OutputThatCannotBeWrittenIsStatus1) {
    start_service("VexHubServer_notify-vexprod");
    for (const char* words : {"commands", "complete ''", "describe test", "doctor", "list", "path main",
                              "ping VexHubServer_notify-vexprod -c 1"}) {
        const finished full =
            run_program({"/bin/sh", "-c", std::string(R"(exec "$0" )") + words + " > /dev/full", KSCTL_PROGRAM});
        EXPECT_EQ(full.status, 1) << words;
        EXPECT_EQ(full.err, "ksctl: cannot write to standard output: No space left on device\n") << words;
    }
}

// ---- path, list, wait

TEST_F(KsctlTest, PathFollowsTheNamingRule) {
    EXPECT_EQ(ksctl({"path", "abc"}).out, "/var/run/ks/A9993E36.sock\n");
    EXPECT_EQ(ksctl({"path", "VexHubServer-vexprod"}).out, "/var/run/ks/5C7A9C5E.sock\n");
    EXPECT_EQ(ksctl({"path", "VexHubServer_send_mail-vexprod"}).out, "/var/run/ks/3F26B522.sock\n");
    EXPECT_EQ(ksctl({"path", "VexHubServer_notify-vexprod"}).out, "/var/run/ks/1D5DE6E8.sock\n");
    EXPECT_EQ(ksctl({"path", "@/tmp/a.sock"}).out, "/tmp/a.sock\n");
    EXPECT_EQ(ksctl({"path", "@/" + std::string(62, 'x')}).out, "/" + std::string(62, 'x') + "\n");
    EXPECT_EQ(ksctl({"path", std::string(65, 'x')}).status, 17);
}

TEST_F(KsctlTest, ListSaysWhenThereIsNothing) {
    const finished list = ksctl({"list"});
    EXPECT_EQ(list.status, 0);
    EXPECT_THAT(list.out, IsEmpty());
    EXPECT_EQ(list.err, "ksctl: no service has a socket in /var/run/ks\n");
}

TEST_F(KsctlTest, ListShowsSocketsWithStateAndKnownNames) {
    start_service("VexHubServer_notify-vexprod");
    { raw_service left_behind("/var/run/ks/A9993E36.sock"); }
    std::ofstream("/var/run/ks/5C7A9C5E.sock") << "not a socket";
    const finished list = ksctl({"list"});
    EXPECT_EQ(list.status, 0);
    EXPECT_EQ(list.out, "/var/run/ks/1D5DE6E8.sock   up    VexHubServer_notify-vexprod\n"
                        "/var/run/ks/A9993E36.sock   down  -\n");
    std::filesystem::remove("/var/run/ks/A9993E36.sock");
    std::filesystem::remove("/var/run/ks/5C7A9C5E.sock");
}

TEST_F(KsctlTest, WaitReturnsOnceTheServiceIsThere) {
    running_program wait({KSCTL_PROGRAM, "wait", name_, "--timeout", "20"});
    start_service(name_);
    EXPECT_EQ(wait.wait().status, 0);
}

// Somebody listens, but takes no more connections.
TEST_F(KsctlTest, FullServiceIsListedAndNotTakenForAccepting) {
    std::filesystem::create_directories("/var/run/ks");
    raw_service full("/var/run/ks/A9993E36.sock");
    std::vector<int> callers;
    do {
        callers.push_back(try_to_connect("/var/run/ks/A9993E36.sock"));
    } while (callers.back() >= 0);
    callers.pop_back();
    EXPECT_EQ(ksctl({"list"}).out, "/var/run/ks/A9993E36.sock   full  -\n");
    EXPECT_EQ(ksctl({"wait", "abc", "--timeout", "0.1"}).status, 11);
    EXPECT_EQ(ksctl({"listen", "abc"}).status, 1);
    const std::string untaken = "time-out: abc took no request within 5 s\n";
    const finished call = ksctl({"call", "abc", "echo", "--timeout", "5"});
    EXPECT_EQ(call.status, 11);
    EXPECT_EQ(call.err, "ksctl: " + untaken);
    const finished ping = ksctl({"ping", "abc", "-c", "1", "--timeout", "5"});
    EXPECT_EQ(ping.status, 11);
    EXPECT_EQ(ping.err, "ksctl: 1: " + untaken);
    EXPECT_EQ(ping.out, "1 calls, 0 answered\n");
    for (const int caller : callers) {
        close(caller);
    }
    std::filesystem::remove("/var/run/ks/A9993E36.sock");
}

TEST_F(KsctlTest, ListTellsWhenThereIsNoFolderToRead) {
    std::filesystem::remove_all("/var/run/ks");
    std::ofstream("/var/run/ks") << "not a folder";
    const finished list = ksctl({"list"});
    EXPECT_EQ(list.status, 1);
    EXPECT_EQ(list.err, "ksctl: cannot read /var/run/ks: Not a directory\n");
    std::filesystem::remove("/var/run/ks");
}

TEST_F(KsctlTest, WaitGivesUpAtItsTimeout) {
    const finished wait = ksctl({"wait", name_, "--timeout", "0.1"});
    EXPECT_EQ(wait.status, 11);
    EXPECT_EQ(wait.err,
              "ksctl: time-out: " + name_ + " (" + folder_ +
                  "/s) accepted no connection within 0.1 s: No such file or directory; nothing is published there\n");
}

// ---- listen, ping

TEST_F(KsctlTest, ListenPrintsEachRequestAsItComesAndAnswers) {
    running_program listen({KSCTL_PROGRAM, "listen", name_, "--reply", R"({"ok":1})"});
    ASSERT_EQ(ksctl({"wait", name_}).status, 0);
    EXPECT_EQ(ksctl({"call", name_, "notify_event", "{\"a\":1}\n"}).out, R"({"ok":1})");
    EXPECT_EQ(listen.read_line(), R"(notify_event {"a":1})");
    EXPECT_EQ(ksctl({"call", name_, "two", "a\nb\tc\x01"}).status, 0);
    EXPECT_EQ(listen.read_line(), R"(two a\nb\tc\x01)");
    EXPECT_EQ(ksctl({"call", name_, "edges", "\rd\x1F ~\x7F\xC3\xA9\r\n\r"}).status, 0);
    EXPECT_EQ(listen.read_line(), "edges \\rd\\x1F ~\\x7F\xC3\xA9");
    EXPECT_EQ(ksctl({"call", name_, "empty"}).status, 0);
    EXPECT_EQ(listen.read_line(), "empty");
    listen.kill(SIGTERM);
    const finished ended = listen.wait();
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.out, IsEmpty());
    EXPECT_THAT(ended.err, IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(folder_ + "/s"));
}

TEST_F(KsctlTest, ListenEndsAfterItsCountAndAnswersBracesByDefault) {
    running_program listen({KSCTL_PROGRAM, "listen", name_, "--count", "2"});
    ASSERT_EQ(ksctl({"wait", name_}).status, 0);
    EXPECT_EQ(ksctl({"call", name_, "first"}).out, "{}");
    EXPECT_EQ(ksctl({"call", name_, "second"}).out, "{}");
    const finished ended = listen.wait();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "first\nsecond\n");
}

TEST_F(KsctlTest, ListenServesNoMoreThanItsCount) {
    running_program listen({KSCTL_PROGRAM, "listen", name_, "--count", "1"});
    ASSERT_EQ(ksctl({"wait", name_}).status, 0);
    std::atomic<int> answered = 0;
    std::vector<std::thread> callers;
    callers.reserve(20);
    for (int i = 0; i < 20; ++i) {
        callers.emplace_back(
            [&] { answered += ks_ez_call(name_.c_str(), "c", nullptr, 0, nullptr, nullptr, 60, -1) == KS_OK; });
    }
    for (std::thread& each : callers) {
        each.join();
    }
    EXPECT_EQ(answered, 1);
    EXPECT_EQ(listen.wait().out, "c\n");
}

TEST_F(KsctlTest, ListenMakesOneFolderForItsSocket) {
    const std::string name = "@" + folder_ + "/new/s";
    running_program listen({KSCTL_PROGRAM, "listen", name});
    EXPECT_EQ(ksctl({"wait", name}).status, 0);
    EXPECT_EQ(ksctl({"call", name, "c"}).out, "{}");
}

TEST_F(KsctlTest, ListenSaysWhereItCannotPublish) {
    const finished read_only = ksctl({"listen", "@/sys/s"});
    EXPECT_EQ(read_only.status, 1);
    // Where root is an ordinary user outside, the folder is nobody's before it is read-only.
    EXPECT_THAT(read_only.err, MatchesRegex("ksctl: cannot publish /sys/s: /sys: "
                                            "(Read-only file system|Permission denied)\n"));
}

TEST_F(KsctlTest, ListenEndsOnInterrupt) {
    running_program listen({KSCTL_PROGRAM, "listen", name_});
    ASSERT_EQ(ksctl({"wait", name_}).status, 0);
    listen.kill(SIGINT);
    EXPECT_EQ(listen.wait().status, 0);
}

TEST_F(KsctlTest, ListenEndsWhenNobodyReadsItsLines) {
    running_program listen({KSCTL_PROGRAM, "listen", name_});
    ASSERT_EQ(ksctl({"wait", name_}).status, 0);
    listen.close_stdout();
    EXPECT_EQ(ksctl({"call", name_, "command"}).status, 0);
    const finished ended = listen.wait();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "ksctl: cannot write to standard output: Broken pipe\n");
}

TEST_F(KsctlTest, ListenTakesNothingAwayFromOthers) {
    start_service(name_);
    const finished served = ksctl({"listen", name_});
    EXPECT_EQ(served.status, 1);
    EXPECT_EQ(served.err, "ksctl: somebody else serves " + name_ + " (" + folder_ + "/s)\n");
    EXPECT_EQ(ksctl({"call", name_, "echo", "still there"}).out, "still there");
    std::ofstream(folder_ + "/file") << "data";
    const finished file = ksctl({"listen", "@" + folder_ + "/file"});
    EXPECT_EQ(file.status, 1);
    EXPECT_EQ(file.err, "ksctl: not a socket: " + folder_ + "/file\n");
    EXPECT_EQ(content_of(folder_ + "/file"), "data");
    EXPECT_EQ(ksctl({"listen", "@relative"}).status, 17);
    EXPECT_EQ(ksctl({"listen", "@" + folder_ + "/a/b/c"}).status, 1);
}

TEST_F(KsctlTest, PingPrintsALineForEachCallAndStatistics) {
    start_service(name_);
    const finished ping = ksctl({"ping", name_, "-c", "3", "--command", "json"});
    EXPECT_EQ(ping.status, 0);
    EXPECT_THAT(ping.out,
                MatchesRegex("1: 57 bytes in [0-9.]+ ms\n2: 57 bytes in [0-9.]+ ms\n3: 57 bytes in [0-9.]+ ms\n"
                             "3 calls, 3 answered, min/avg/max [0-9.]+/[0-9.]+/[0-9.]+ ms, "
                             "p50/p90/p99 [0-9.]+/[0-9.]+/[0-9.]+ ms\n"));
}

TEST_F(KsctlTest, PingCallsTestFourTimesIfNotToldOtherwise) {
    start_service(name_);
    EXPECT_THAT(ksctl({"ping", name_}).out, MatchesRegex("(.: 6 bytes in [0-9.]+ ms\n){4}4 calls, 4 answered.*\n"));
}

// The statistics are those of the times that were printed; the percentiles are some of them.
TEST_F(KsctlTest, PingReckonsByTheNearestRank) {
    start_service(name_);
    for (const size_t count : {1U, 10U}) {
        std::istringstream lines(ksctl({"ping", name_, "-c", std::to_string(count)}).out);
        std::vector<double> times;
        std::string line;
        for (size_t i = 0; i < count && std::getline(lines, line); ++i) {
            times.push_back(std::stod(line.substr(line.find(" in ") + 4)));
        }
        ASSERT_EQ(times.size(), count);
        std::sort(times.begin(), times.end());
        std::getline(lines, line);
        std::array<char, 512> expected{};
        const size_t lowest = line.find("max ");
        ASSERT_NE(lowest, std::string::npos) << line;
        const double average = std::stod(line.substr(line.find('/', lowest) + 1));
        EXPECT_NEAR(average, std::accumulate(times.begin(), times.end(), 0.0) / static_cast<double>(count), 0.002);
        (void)snprintf(expected.data(), expected.size(),
                       "%zu calls, %zu answered, min/avg/max %.3f/%.3f/%.3f ms, p50/p90/p99 %.3f/%.3f/%.3f ms", count,
                       count, times.front(), average, times.back(), times[count == 1 ? 0 : 4],
                       times[count == 1 ? 0 : 8], times.back());
        EXPECT_EQ(line, expected.data());
    }
}

TEST_F(KsctlTest, PingOfAPausedServiceHasNoTimes) {
    start_service(name_);
    ks_pause(service_);
    const finished ping = ksctl({"ping", name_, "-c", "1"});
    EXPECT_EQ(ping.status, 13);
    EXPECT_EQ(ping.out, "1 calls, 0 answered\n");
    EXPECT_EQ(ping.err, "ksctl: 1: service is paused: " + name_ + "\n");
}

TEST_F(KsctlTest, InterruptedPingPrintsItsStatistics) {
    start_service(name_);
    running_program ping({KSCTL_PROGRAM, "ping", name_, "-c", "100000000"});
    EXPECT_THAT(ping.read_line(), StartsWith("1: 6 bytes in "));
    ping.kill(SIGINT);
    const finished ended = ping.wait();
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.out, ContainsRegex("[0-9]+ calls, [0-9]+ answered, min/avg/max .*\n$"));
}

TEST_F(KsctlTest, InterruptedPingDoesNotWaitForItsService) {
    raw_service service(folder_ + "/s");
    std::atomic<bool> connected = false;
    std::atomic<bool> over = false;
    service.serve_one([&](int) {
        connected = true;
        connected.notify_one();
        over.wait(false);
    });
    running_program ping({KSCTL_PROGRAM, "ping", name_, "--timeout", "0"});
    connected.wait(false);
    ping.kill(SIGTERM);
    EXPECT_EQ(ping.wait().out, "1 calls, 0 answered\n");
    over = true;
    over.notify_one();
}

// ---- conform

// What conform says of a client that makes its call and goes on with `script`. It is not waited for beyond that.
std::string first_trouble(const std::string& script, const std::string& timeout_s) {
    running_program conform({KSCTL_PROGRAM, "conform", "--client", "--timeout", timeout_s, "--", "/bin/sh", "-c",
                             R"("$0" call "$@"; )" + script, KSCTL_PROGRAM});
    EXPECT_THAT(conform.read_line(), StartsWith("FAIL  "));
    return conform.read_line();
}

TEST_F(KsctlTest, ConformWaitsForAClientsEndOnceOnly) {
    EXPECT_EQ(first_trouble("while sleep 0.1; do echo retry; done", "1"), "      -> it did not end");
}

// SIGPIPE, which ksctl itself ignores.
TEST_F(KsctlTest, ConformLetsASignalEndAClientAndSaysWhich) {
    const finished conform =
        ksctl({"conform", "--client", "--", "/bin/sh", "-c", R"("$0" call "$@"; kill -PIPE $$)", KSCTL_PROGRAM});
    EXPECT_EQ(conform.status, 1);
    EXPECT_THAT(conform.out, HasSubstr("-> it ended with status 141\n"));
}

TEST_F(KsctlTest, ConformDoesNotKeepEndlessOutput) {
    EXPECT_EQ(first_trouble("head -c 20000000 /dev/zero; exec sleep 60", "3600"), "      -> it did not end");
}

TEST_F(KsctlTest, ConformEndsWhenItsReportCannotBePrinted) {
    start_service(name_);
    const finished closed = run_program({"/bin/sh", "-c", R"(exec "$0" conform "$1" >&-)", KSCTL_PROGRAM, name_});
    EXPECT_EQ(closed.status, 1);
    EXPECT_EQ(closed.err, "ksctl: cannot write to standard output: Bad file descriptor\n");
    const finished full =
        run_program({"/bin/sh", "-c", R"(exec "$0" conform --client -- "$0" call >/dev/full)", KSCTL_PROGRAM});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "ksctl: cannot write to standard output: No space left on device\n");
}

// ---- the command line itself

// What is opened in the place of a closed stream must not be written to as if it were that.
TEST_F(KsctlTest, ClosedStandardStreamsStayClosed) {
    start_service(name_);
    const auto without = [&](const std::string& closing, const std::string& words) {
        return run_program({"/bin/sh", "-c", R"(exec "$0" )" + words + ' ' + closing, KSCTL_PROGRAM, name_});
    };
    const finished unread = without("<&-", R"(call "$1" echo -)");
    EXPECT_EQ(unread.status, 1);
    EXPECT_EQ(unread.err, "ksctl: cannot read standard input: Bad file descriptor\n");
    EXPECT_EQ(without("<&- 2>&-", R"(call "$1" has_fd)").out, "no");
    EXPECT_EQ(without("<&- 2>&-", R"(call "$1" print --output )" + folder_ + "/o").out, "done");
    EXPECT_EQ(content_of(folder_ + "/o"), "printed");
    EXPECT_EQ(without(">&-", R"(call "$1" print --output )" + folder_ + "/p").status, 1);
    EXPECT_EQ(content_of(folder_ + "/p"), "printed");
    EXPECT_EQ(without("2>&-", "call @/absent print --output " + folder_ + "/q").status, 12);
    EXPECT_THAT(content_of(folder_ + "/q"), IsEmpty());
    EXPECT_EQ(without("<&- >&- 2>&-", R"(call "$1" echo text)").status, 1);
    EXPECT_EQ(without("<&- >&- 2>&-", R"(ping "$1" -c 1)").status, 1);
}

TEST_F(KsctlTest, WrongUsageIsStatus2) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                      {"call", name_},
                                                      {"unknown"},
                                                      {"call", name_, "a", "b", "c"},
                                                      {"wait", name_, "--timeout", "-1"},
                                                      {"wait", name_, "--timeout", "nan"},
                                                      {"ping", name_, "-c", "0"},
                                                      {"call", name_, "a", "--timeout", "x"},
                                                      {"call", name_, "a", "--timeout", ""},
                                                      {"call", name_, "a", "--timeout="},
                                                      {"call", name_, "a", "--timeout", "1.5"},
                                                      {"call", name_, "a", "--output", ""},
                                                      {"commands", "--service", ""},
                                                      {"conform", name_, "--timeout", ""},
                                                      {"describe", "test", "--service", ""},
                                                      {"listen", "@relative", "--count", ""},
                                                      {"ping", name_, "-c", ""},
                                                      {"ping", name_, "--timeout", ""},
                                                      {"wait", name_, "--timeout", ""}}) {
        const finished wrong = ksctl(arguments);
        EXPECT_EQ(wrong.status, 2);
        EXPECT_THAT(wrong.out, IsEmpty());
        EXPECT_THAT(wrong.err, MatchesRegex("ksctl: [^\n]*\n"));
    }
}

TEST_F(KsctlTest, WrongUsagePointsToTheHelpThatKnows) {
    EXPECT_EQ(ksctl({"cal"}).err, "ksctl: no subcommand cal; did you mean call? (see ksctl --help)\n");
    EXPECT_EQ(ksctl({"frobnicate"}).err, "ksctl: no subcommand frobnicate (see ksctl --help)\n");
    EXPECT_EQ(ksctl({"call", name_}).err, "ksctl: COMMAND is required (see ksctl call --help)\n");
    EXPECT_EQ(ksctl({"call", name_, "--"}).err, "ksctl: COMMAND is required (see ksctl call --help)\n");
    EXPECT_EQ(ksctl({"call", name_, "a", "--", "r", "x"}).err, "ksctl: not expected: x (see ksctl call --help)\n");
    EXPECT_EQ(ksctl({"conform", "--client", "--"}).err, "ksctl: WORDS is required (see ksctl conform --help)\n");
    EXPECT_EQ(ksctl({"conform", "one", "two"}).err,
              "ksctl: one SERVICE at a time, or --client before a client's command line (see ksctl conform --help)\n");
    EXPECT_EQ(ksctl({""}).err, "ksctl: no subcommand '' (see ksctl --help)\n");
    EXPECT_EQ(ksctl({"--nope"}).err, "ksctl: not expected: --nope (see ksctl --help)\n");
    EXPECT_EQ(ksctl({"call", "--nope"}).err, "ksctl: not expected: --nope (see ksctl call --help)\n");
    EXPECT_EQ(ksctl({"--timeout", "5", "call", name_, "a"}).err,
              "ksctl: not expected: --timeout 5 (see ksctl call --help)\n");
    EXPECT_EQ(ksctl({"call", name_, "a", "r", "--request", "", "s"}).err,
              "ksctl: not expected: --request '' s (see ksctl call --help)\n");
    EXPECT_EQ(ksctl({"call", name_, "a", "--timeout", ""}).err,
              "ksctl: --timeout: Value '' not in range 0 to 4294967295 (see ksctl call --help)\n");
    start_service(name_); // what is let through wrongly does not wait
    EXPECT_EQ(ksctl({"wait", name_, "--timeout", "1000001"}).err,
              "ksctl: --timeout: Value 1000001 not in range 0 to 1000000 (see ksctl wait --help)\n");
    EXPECT_EQ(ksctl({"conform", name_, "--timeout", "3601"}).err,
              "ksctl: --timeout: Value 3601 not in range 1 to 3600 (see ksctl conform --help)\n");
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"wait", name_, "--timeout", "-1"},
                                                      {"wait", name_, "--timeout", "1e300"},
                                                      {"conform", name_, "--timeout", "0"},
                                                      {"wait", name_, "--timeout", "nan"},
                                                      {"call", name_, "a", "--timeout", "-1"},
                                                      {"call", name_, "a", "--timeout", "1.5"},
                                                      {"call", name_, "a", "--timeout", "4294967296"},
                                                      {"listen", name_, "--count", "-1"},
                                                      {"ping", name_, "-c", "0"}}) {
        const std::string error = ksctl(arguments).err;
        EXPECT_THAT(error, HasSubstr(" not in range "));
        EXPECT_LT(error.size(), 100U) << error;
        EXPECT_THAT(error, HasSubstr("(see ksctl " + arguments[0] + " --help)\n"));
    }
}

TEST_F(KsctlTest, HelpOfEachCommandEndsWithAnExample) {
    EXPECT_THAT(ksctl({"--help"}).out,
                HasSubstr("  18  the request was taken, and the connection ended without a reply"));
    for (const char* command : {"call", "commands", "describe", "doctor", "listen", "list", "path", "ping", "wait"}) {
        const finished help = ksctl({command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_THAT(help.out, HasSubstr(std::string("\nExample:\n  ksctl ") + command));
    }
    EXPECT_THAT(ksctl({"call", "--help"}).out, ContainsRegex("not the +example's that ksctl describe +gives"));
    EXPECT_THAT(ksctl({"call", "--help"}).out, ContainsRegex("--timeout S[^ ]*=30 "));
    EXPECT_THAT(ksctl({"wait", "--help"}).out, ContainsRegex("--timeout S[^ ]*=30 "));
    EXPECT_THAT(ksctl({"ping", "--help"}).out, ContainsRegex("--timeout S[^ ]*=5 "));
}

TEST_F(KsctlTest, HelpThatCannotBeWrittenIsStatus1) {
    const finished help = run_program({"/bin/sh", "-c", R"(exec "$0" --help > /dev/full)", KSCTL_PROGRAM});
    EXPECT_EQ(help.status, 1);
    EXPECT_EQ(help.err, "ksctl: cannot write to standard output: No space left on device\n");
}

TEST_F(KsctlTest, VersionIsPrinted) {
    const finished version = ksctl({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_THAT(version.out, MatchesRegex("ksctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

} // namespace
