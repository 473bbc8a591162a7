// ksctl beside the real daemon: what it says about calls that fail, the examples that it gives, and its doctor.
#include "command_document.h"
#include "daemon_process.h"
#include "displaced_files.h"
#include "documented_calls.h"
#include "host_tool.h"
#include "notify_listener.h"
#include "privileges.h"
#include "run_program.h"
#include "stopped_process.h"
#include "unique_fd.h"
#include "wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/mount.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

finished ksctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KSCTL_PROGRAM);
    return run_program(arguments);
}

constexpr const char* kMainSocket = "/var/run/ks/5C7A9C5E.sock";

// What `ksctl call -v` says about a request to the main service.
std::string hint(const char* command, const std::string& request, const char* service = "main") {
    return ksctl({"call", service, command, request, "-v"}).err;
}

TEST(KsctlDoctorTest, FindsThatNothingWasStarted) {
    const finished doctor = ksctl({"doctor"});
    EXPECT_EQ(doctor.status, 20);
    EXPECT_THAT(
        doctor.out,
        AllOf(HasSubstr("BAD   main service: /var/run/ks/5C7A9C5E.sock: No such file or directory; it has not been "
                        "started\n      remedy: start vexprod; "),
              HasSubstr("BAD   mail service: "),
              HasSubstr("BAD   who may call: /var/run/ks: No such file or directory\n"),
              HasSubstr("BAD   notification queue 65521: not there\n"),
              HasSubstr("BAD   event-log queue 65522: not there\n"),
              HasSubstr(
                  "BAD   log: /share/VexHubServer/.log: No such file or directory\n      remedy: make the folder")));
}

TEST(KsctlDoctorTest, FindsAFileInASocketsPlace) {
    write_file(kMainSocket, "");
    EXPECT_THAT(ksctl({"doctor"}).out, HasSubstr(std::string("BAD   main service: ") + kMainSocket +
                                                 " is not a socket\n      remedy: remove it"));
    std::filesystem::remove_all("/var/run/ks");
}

TEST(KsctlDoctorTest, FindsNoRoomForTheLog) {
    SKIP_UNLESS(may_mount(), "mounts small file systems, which takes CAP_SYS_ADMIN");
    const std::string folder = std::filesystem::path(kDaemonLog).parent_path();
    std::filesystem::create_directory(folder);
    for (const auto& [flags, size, line] :
         {std::tuple{0UL, "size=64k", "BAD   log: " + folder + " has no space left\n"},
          {MS_RDONLY, "size=2m", "BAD   log: " + folder + " is read-only\n"},
          {0UL, "size=1m", std::string("ok    log: ") + kDaemonLog + " is writable\n"}}) {
        ASSERT_EQ(mount("none", folder.c_str(), "tmpfs", flags, size), 0) << strerror(errno);
        EXPECT_THAT(ksctl({"doctor"}).out, HasSubstr(line));
        EXPECT_EQ(umount(folder.c_str()), 0) << strerror(errno);
    }
    std::filesystem::remove(folder);
}

TEST(KsctlDoctorTest, FindsWhatStandsInTheLogsPlace) {
    std::filesystem::create_directories(kDaemonLog);
    EXPECT_THAT(ksctl({"doctor"}).out, HasSubstr(std::string("BAD   log: ") + kDaemonLog +
                                                 ": Is a directory\n      remedy: take away what stands there"));
    std::filesystem::remove(kDaemonLog);
    ASSERT_EQ(mkfifo(kDaemonLog, 0600), 0);
    EXPECT_THAT(ksctl({"doctor"}).out, HasSubstr(std::string("BAD   log: ") + kDaemonLog + ": No such device or"));
    std::filesystem::remove_all(std::filesystem::path(kDaemonLog).parent_path());
}

TEST(KsctlDoctorTest, ReadsTheOlderLogFirst) {
    write_file(std::string(kDaemonLog) + ".bak", "[00007] [now] [vexprod_debug_backtrace_dump][1]====\n");
    write_file(kDaemonLog, "[00008] [now] [main][2] lyn-ks-vexprod start, Server:s.\n");
    EXPECT_THAT(ksctl({"doctor"}).out, HasSubstr("note  crashes: last report: [00007] [now]; started again since\n"));
    std::filesystem::remove_all(std::filesystem::path(kDaemonLog).parent_path());
}

struct queue_record {
    long type = 1;
    std::array<char, 4000> body{};
};

TEST(KsctlDoctorTest, TellsWhoPostedAndWhoMay) {
    const int queue = msgget(65522, IPC_CREAT | 0622);
    const queue_record record;
    EXPECT_TRUE(passes_in_own_process([&] { EXPECT_EQ(msgsnd(queue, &record, 1, 0), 0); }));
    EXPECT_THAT(ksctl({"doctor"}).out,
                ContainsRegex("BAD   event-log queue 65522: 1 records wait and none is taken; last posted by process "
                              "[0-9]+, which has ended at [-0-9]+ [:0-9]+, everybody may post\n"));
    EXPECT_EQ(msgctl(queue, IPC_RMID, nullptr), 0);
}

// Records go through the queue the whole time, and it is never empty.
TEST(KsctlDoctorTest, SeesThatAQueueIsBeingEmptied) {
    const int queue = msgget(65522, IPC_CREAT | 0600);
    std::atomic<bool> over = false;
    std::thread traffic([&] {
        queue_record record;
        EXPECT_EQ(msgsnd(queue, &record, 1, 0), 0);
        while (!over) {
            EXPECT_EQ(msgsnd(queue, &record, 1, 0), 0);
            EXPECT_EQ(msgrcv(queue, &record, record.body.size(), 0, 0), 1);
        }
    });
    EXPECT_TRUE(wait_until([] { // on a slow machine the traffic may stand still for the second that the doctor looks
        return ksctl({"doctor"}).out.find(" records, being taken; last posted by process ") != std::string::npos;
    }));
    over = true;
    traffic.join();
    EXPECT_EQ(msgctl(queue, IPC_RMID, nullptr), 0);
}

class KsctlDaemonTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(daemon_.serves()); }
    daemon_process daemon_;
};

// ---- describe

TEST_F(KsctlDaemonTest, DescribedExamplesCanBePasted) {
    std::vector<documented_command> commands = read_command_document(read_file(COMMANDS_DOCUMENT));
    (void)leave_out_unpreparable(commands); // commands_doc_test tells which
    for (const documented_command& command : commands) {
        SCOPED_TRACE(command.name);
        provide_all(command);
        const finished description = ksctl({"describe", command.name, "--service", command.section});
        EXPECT_EQ(description.status, 0) << description.err;
        const size_t begin = description.out.find("\n  ksctl call ") + 3;
        ASSERT_GT(begin, 3U) << description.out;
        const std::string line = description.out.substr(begin, description.out.find('\n', begin) - begin);
        const finished pasted = run_program({"/bin/sh", "-c", "ksctl() { '" KSCTL_PROGRAM "' \"$@\"; }; " + line});
        EXPECT_EQ(pasted.status, 0) << line << '\n' << pasted.err;
        EXPECT_EQ(pasted.out, example_reply(command)) << line;
    }
}

// ---- call

TEST_F(KsctlDaemonTest, RefusedRequestIsHintedAt) {
    const std::string end = " (ksctl describe get_sess_id lists its keys)\n";
    EXPECT_EQ(hint("get_sess_id", R"({"user":"admin"})"), "ksctl: get_sess_id: key \"pwd\" (string) is missing" + end);
    EXPECT_EQ(hint("get_sess_id", R"({"usr":"admin","pwd":"p"})"),
              "ksctl: get_sess_id: key \"user\" (string) is missing; did you mean it by \"usr\"?" + end);
    EXPECT_EQ(hint("get_sess_id", R"({"User":"admin","pwd":"p"})"),
              "ksctl: get_sess_id: key \"user\" (string) is missing; did you mean it by \"User\"?" + end);
    EXPECT_EQ(hint("get_sess_id", R"({"user":1,"pwd":"p"})"),
              "ksctl: get_sess_id: key \"user\" is of type int and has to be of type string" + end);
    EXPECT_EQ(hint("get_sess_id", ""), "ksctl: get_sess_id: the request is empty" + end);
    EXPECT_EQ(hint("get_sess_id", "[]"),
              "ksctl: get_sess_id: the request is not a JSON object but of type array" + end);
    EXPECT_EQ(hint("get_sess_id", R"({"usr1":"admin","user_of_host":"h","pwd":"p"})"),
              "ksctl: get_sess_id: key \"user\" (string) is missing; did you mean it by \"usr1\"?" + end);
    EXPECT_THAT(hint("get_sess_id", "{\"user\""),
                MatchesRegex("ksctl: get_sess_id: the request is not JSON: Line 1, Column [0-9]+: [A-Z][^\n]* "
                             "\\(ksctl describe get_sess_id lists its keys\\)\n"));
    EXPECT_THAT(hint("reverse_proxy", R"({"action":"add","rule_list":[{"GUID":"g","port":[],"des_port":1}]})"),
                HasSubstr("\nksctl: reverse_proxy: key \"port\" of rule 1 is of type array and has to be of type int"));
    EXPECT_THAT(
        hint("reverse_proxy", R"({"action":"add","rule_list":[{},{"GUID":"g","port":1,"des_port":1,"hsts":"y"}]})"),
        HasSubstr("\nksctl: reverse_proxy: key \"hsts\" of rule 2 is of type string and has to be of type bool"));
    EXPECT_THAT(
        hint("reverse_proxy", R"({"action":"add","rule_list":[{"GUID":{}}]})"),
        HasSubstr("\nksctl: reverse_proxy: key \"GUID\" of rule 1 is of type object and has to be of type string"));
}

TEST_F(KsctlDaemonTest, HintNamesTheTypeThatWasGiven) {
    for (const auto& [value, type] : {std::pair{"null", "null"},
                                      {"1", "int"},
                                      {"3000000000", "long"},
                                      {"1.5", "double"},
                                      {"true", "bool"},
                                      {"[]", "array"},
                                      {"{}", "object"}}) {
        EXPECT_THAT(hint("get_sess_id", std::string(R"({"pwd":"p","user":)") + value + "}"),
                    HasSubstr(std::string("key \"user\" is of type ") + type + " and has to be of type string"));
    }
}

// What the daemon converts, and what is no rule at all, is not what such a request fails by.
TEST_F(KsctlDaemonTest, HintPassesOverWhatTheDaemonTakes) {
    const finished call = ksctl({"call", "main", "reverse_proxy", R"({"action":"add","rule_list":[5]})", "-v"});
    EXPECT_EQ(call.status, 18);
    EXPECT_THAT(call.err, HasSubstr("\nksctl: reverse_proxy: an unknown action, with nothing done; or: a value that "
                                    "cannot be converted, "));
    EXPECT_THAT(hint("web_kiosk", R"({"action":"begin","rule_list":[{"wk_id":5,"des_port":80.5,"host_name":null}]})"),
                HasSubstr("\nksctl: web_kiosk: an unknown action; or: "));
}

TEST_F(KsctlDaemonTest, FailureNamesTheToolAndTheLog) {
    host_tool("/sbin/no_del_share").exits(1);
    EXPECT_EQ(
        hint("system_call_no_del_share_add", R"({"share_name":"s"})"),
        std::string("ksctl: system_call_no_del_share_add: the tool failed; it runs /sbin/no_del_share add <share_name> "
                    "VexHubServer; the daemon's log is ") +
            kDaemonLog + "\n");
    host_tool("/usr/local/bin/nimbo_device_tool").exits(1);
    EXPECT_THAT(hint("system_call_cloud_get_device_info", ""), // it has no keys
                StartsWith("ksctl: system_call_cloud_get_device_info: the tool failed; it runs "
                           "/usr/local/bin/nimbo_device_tool get_device_info; the daemon's log is "));
    host_tool("/share/VexHubServer/VexHubServer.sh").exits(1);
    EXPECT_THAT(
        hint("system_call_vexpro_disable", ""),
        HasSubstr("; it reads /etc/config/zpkg.conf VexHubServer Shell, runs <Shell> force_stop; the daemon's "));
    EXPECT_THAT(hint("vex_auth_get_session", R"({"type":1,"length":32,"sid":"gone"})"),
                HasSubstr(" or the call failed; it calls auth_get_session; the daemon's log is "));
    EXPECT_THAT(hint("web_kiosk", R"({"action":"begin","rule_list":[{}]})"),
                HasSubstr("\nksctl: web_kiosk: an unknown action; or: a value that cannot be converted; or: the tool "
                          "failed; it may run /usr/sbin/vsh "));
}

TEST_F(KsctlDaemonTest, HintsAreForPeople) {
    const std::vector<std::string> refused = {"call", "main", "get_sess_id", "{}"};
    EXPECT_THAT(ksctl(refused).err, IsEmpty());
    EXPECT_THAT(hint("get_vpd_channel", ""), IsEmpty()) << "nothing has failed";
    EXPECT_THAT(hint("is_generic_model", ""), IsEmpty()) << "its \"result\" -1 is no failure";
}

TEST_F(KsctlDaemonTest, HintsComeByThemselvesOnATerminal) {
    ASSERT_EQ(mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666"), 0) << strerror(errno);
    const unique_fd terminal(open("/dev/pts/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal.ok()) << strerror(errno);
    ASSERT_EQ(unlockpt(terminal.get()), 0);
    const finished call = run_program(
        {"/bin/sh", "-c", R"(exec "$0" call main get_sess_id '{}' 2>"$1")", KSCTL_PROGRAM, ptsname(terminal.get())});
    EXPECT_EQ(call.out, "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n");
    std::array<char, 1024> said{};
    EXPECT_GT(read(terminal.get(), said.data(), said.size() - 1), 0);
    EXPECT_THAT(said.data(), StartsWith("ksctl: get_sess_id: key \"user\" (string) is missing"));
}

TEST_F(KsctlDaemonTest, CheckedCallHasAStatusForEachOutcome) {
    EXPECT_EQ(ksctl({"call", "main", "get_vpd_channel", "--check"}).status, 0);
    EXPECT_EQ(ksctl({"call", "main", "is_generic_model", "--check"}).status, 0) << "its example has \"result\" -1";
    EXPECT_EQ(ksctl({"call", "main", "get_sess_id", "{}", "--check"}).status, 19);
    EXPECT_EQ(ksctl({"call", "main", "none", "--check"}).status, 18);
}

// ---- doctor

TEST_F(KsctlDaemonTest, DoctorFindsAllWell) {
    const finished doctor = ksctl({"doctor"});
    EXPECT_EQ(doctor.status, 0) << doctor.out;
    for (const char* line :
         {"ok    package registry: Install_Path of [VexHubServer] in /etc/config/zpkg.conf is /share/",
          "ok    main service: VexHubServer-vexprod answers in ",
          "ok    mail service: VexHubServer_send_mail-vexprod answers in ",
          "ok    who may call: everybody, by the modes from / to ",
          "ok    notification queue 65521: empty; nobody has posted yet, only root may post",
          "ok    event-log queue 65522: empty; nobody has posted yet, only root may post",
          "note  notification service: VexHubServer_notify-vexprod is not there",
          "ok    log: /share/VexHubServer/.log/.lyn_ks_vexprod.log is writable", "ok    crashes: no report in the log",
          "ok    descriptors: "}) {
        EXPECT_THAT(doctor.out, HasSubstr(line));
    }
    EXPECT_THAT(doctor.out, HasSubstr(" in use by process " + std::to_string(daemon_.pid()) + " (vexprod)\n"));
    EXPECT_THAT(doctor.out, Not(HasSubstr("BAD")));
}

TEST_F(KsctlDaemonTest, DoctorCountsTheDaemonsDescriptors) {
    rlimit limit = {};
    ASSERT_EQ(prlimit(daemon_.pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
    const auto finds = [&](const std::string& kind, size_t spare) {
        const size_t open = daemon_.settled("fd"); // the doctor's own connections are being closed meanwhile
        limit.rlim_cur = open + spare;
        EXPECT_EQ(prlimit(daemon_.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
        return ksctl({"doctor"})
                   .out.find(kind + "descriptors: " + std::to_string(open) + " of " + std::to_string(limit.rlim_cur) +
                             " in use by ") != std::string::npos;
    };
    EXPECT_TRUE(wait_until([&] { return finds("ok    ", 64); }));
    EXPECT_TRUE(wait_until([&] { return finds("BAD   ", 63); }));
}

TEST_F(KsctlDaemonTest, DoctorFindsADaemonThatIsGone) {
    daemon_.stop(SIGKILL);
    const finished doctor = ksctl({"doctor"});
    EXPECT_EQ(doctor.status, 20);
    EXPECT_THAT(doctor.out, ContainsRegex("BAD   main service: /var/run/ks/5C7A9C5E.sock: Connection refused; it was "
                                          "started and is gone: [^\n]*\n      remedy: start vexprod"));
}

TEST_F(KsctlDaemonTest, DoctorFindsADaemonThatDoesNotAnswer) {
    const stopped_process stopped(daemon_.pid());
    const finished doctor = ksctl({"doctor"});
    EXPECT_EQ(doctor.status, 20);
    EXPECT_THAT(doctor.out, HasSubstr("BAD   main service: time-out: VexHubServer-vexprod took no request within 5 s\n"
                                      "      remedy: see whether vexprod is stopped "));
    EXPECT_THAT(doctor.out, HasSubstr(" in use by process " + std::to_string(daemon_.pid()) + " (vexprod)\n"));
}

TEST_F(KsctlDaemonTest, DoctorFindsABacklogThatIsFull) {
    const stopped_process stopped(daemon_.pid());
    sockaddr_un address = {AF_UNIX, {}};
    std::string(kMainSocket).copy(address.sun_path, sizeof(address.sun_path) - 1);
    std::vector<unique_fd> callers;
    do {
        callers.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    } while (connect(callers.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
    ASSERT_EQ(errno, EAGAIN) << strerror(errno);
    EXPECT_THAT(ksctl({"doctor"}).out,
                HasSubstr(std::string("BAD   main service: ") + kMainSocket +
                          ": too many connections wait to be accepted\n      remedy: see whether vexprod is stopped "));
}

TEST_F(KsctlDaemonTest, DoctorTellsOfTheLastCrash) {
    const pid_t crashed = daemon_.pid();
    daemon_.stop(SIGSEGV);
    EXPECT_THAT(ksctl({"doctor"}).out,
                ContainsRegex("BAD   crashes: last report: \\[0*" + std::to_string(crashed) +
                              "\\] \\[[^\n]*\\]; not started again since\n      remedy: addr2line "));
    const daemon_process again;
    ASSERT_TRUE(again.serves());
    const finished doctor = ksctl({"doctor"});
    EXPECT_EQ(doctor.status, 0) << doctor.out;
    EXPECT_THAT(doctor.out, ContainsRegex("note  crashes: last report: [^\n]*; started again since\n"));
}

TEST_F(KsctlDaemonTest, DoctorFindsARecordThatBlocksItsQueue) {
    const queue_record record;
    const int queue = msgget(65522, 0);
    ASSERT_EQ(msgsnd(queue, &record, record.body.size(), 0), 0);
    const finished doctor = ksctl({"doctor"});
    EXPECT_EQ(doctor.status, 20);
    EXPECT_THAT(doctor.out,
                ContainsRegex("BAD   event-log queue 65522: 1 records wait and none is taken; last posted by "
                              "process [0-9]+ \\([^\n]*\\) at [^\n]*\n      remedy: see vexprod-events\\(7\\)"));
    EXPECT_THAT(doctor.out, HasSubstr("ok    notification queue 65521: empty"));
    EXPECT_EQ(msgctl(queue, IPC_RMID, nullptr), 0);
}

TEST_F(KsctlDaemonTest, DoctorLooksAtTheModes) {
    ASSERT_EQ(chmod("/var/run/ks", 0777), 0);
    EXPECT_THAT(
        ksctl({"doctor"}).out,
        ContainsRegex("BAD   who may call: [^\n]*/run/ks has mode 0777: anybody may put a socket of his own in a "
                      "service's place\n      remedy: chmod o-w "));
    ASSERT_EQ(chmod("/var/run/ks", 0750), 0);
    const finished closed = ksctl({"doctor"});
    EXPECT_EQ(closed.status, 0) << "that may be wanted";
    EXPECT_THAT(closed.out,
                ContainsRegex("note  who may call: [^\n]*/run/ks has mode 0750: only root and its group get in"));
    ASSERT_EQ(chmod("/var/run/ks", 01777), 0);
    EXPECT_THAT(ksctl({"doctor"}).out, HasSubstr("ok    who may call: everybody"));
    ASSERT_EQ(chmod(kMainSocket, 0770), 0);
    EXPECT_THAT(ksctl({"doctor"}).out, HasSubstr(std::string("note  who may call: ") + kMainSocket +
                                                 " has mode 0770: only root and its group\n"));
}

TEST_F(KsctlDaemonTest, DoctorFindsTheNotificationService) {
    const notify_listener listener;
    EXPECT_THAT(ksctl({"doctor"}).out,
                HasSubstr("ok    notification service: VexHubServer_notify-vexprod accepts connections\n"));
}

TEST_F(KsctlDaemonTest, DoctorTellsOthersWhatOnlyRootSees) {
    SKIP_UNLESS(may_become_others(), "runs as another user, which takes the machine's root");
    const test_folder folder; // where that user can read the program, whatever the folders above the build are like
    const std::string program = folder / "ksctl";
    std::filesystem::copy_file(KSCTL_PROGRAM, program);
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    const auto doctor = [&] {
        return run_program({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", program, "doctor"});
    };
    displaced_files tools; // the simulated host's own are for root
    tools.replace_by_script("/sbin/cfgread", "exit 1");
    EXPECT_THAT(doctor().out,
                HasSubstr("note  package registry: no Install_Path of [VexHubServer] in /etc/config/zpkg.conf for "
                          "this user; run as root"));
    tools.replace_by_script("/sbin/cfgread", "echo /share/VexHubServer");
    const finished open = doctor();
    EXPECT_EQ(open.status, 0) << open.out;
    EXPECT_THAT(open.out, HasSubstr("note  descriptors: only root can count those of process " +
                                    std::to_string(daemon_.pid()) + " (vexprod)\n"));
    EXPECT_THAT(open.out, HasSubstr(std::string("note  log: ") + kDaemonLog + ": only root can tell whether "));
    ASSERT_EQ(chmod("/var/run/ks", 0700), 0);
    const finished closed = doctor();
    EXPECT_EQ(closed.status, 20);
    EXPECT_THAT(closed.out,
                ContainsRegex("BAD   main service: [^\n]* Permission denied; [^\n]*\n      remedy: run ksctl as "
                              "root, or "));
    ASSERT_EQ(chown("/var/run/ks", 65534, 0), 0);
    EXPECT_THAT(doctor().out, HasSubstr(" has mode 0700: only user 65534 and its group get in\n"));
}

TEST_F(KsctlDaemonTest, DoctorFindsAMissingInstallPath) {
    displaced_files registry;
    registry.take_away("/etc/config/zpkg.conf");
    EXPECT_THAT(ksctl({"doctor"}).out,
                HasSubstr("BAD   package registry: /etc/config/zpkg.conf: No such file or directory\n"
                          "      remedy: install the package anew, or make the file readable"));
    write_file("/etc/config/zpkg.conf", "[VexHubServer]\nOther = 1\n");
    const finished doctor = ksctl({"doctor"});
    EXPECT_EQ(doctor.status, 20);
    EXPECT_THAT(doctor.out, HasSubstr("note  log: not known without the install path\n"));
    EXPECT_THAT(doctor.out, ContainsRegex("BAD   package registry: no Install_Path of \\[VexHubServer\\] in "
                                          "/etc/config/zpkg.conf\n      remedy: install the package anew"));
    registry.take_away("/sbin/cfgread");
    EXPECT_THAT(ksctl({"doctor"}).out,
                HasSubstr("BAD   package registry: /sbin/cfgread: No such file or directory\n      "
                          "remedy: install the host's configuration reader"));
}

} // namespace
