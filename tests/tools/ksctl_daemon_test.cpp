// ksctl beside the real daemon: what it says about calls that fail, the examples that it gives, and its doctor.
#include "command_document.h"
#include "daemon_process.h"
#include "displaced_files.h"
#include "documented_calls.h"
#include "host_tool.h"
#include "run_program.h"
#include "stopped_process.h"
#include "unique_fd.h"
#include "wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <string>
#include <sys/mount.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

finished ksctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KSCTL_PROGRAM);
    return run_program(arguments);
}

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
              HasSubstr("BAD   mail service: "), HasSubstr("BAD   notification queue 65521: not there\n"),
              HasSubstr("BAD   event-log queue 65522: not there\n")));
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
    EXPECT_THAT(hint("get_sess_id", "{\"user\""), StartsWith("ksctl: get_sess_id: the request is not JSON: Line 1, "));
    EXPECT_THAT(hint("reverse_proxy", R"({"action":"add","rule_list":[{"GUID":"g","port":[],"des_port":1}]})"),
                HasSubstr("\nksctl: reverse_proxy: key \"port\" of rule 1 is of type array and has to be of type int"));
}

TEST_F(KsctlDaemonTest, FailureNamesTheToolAndTheLog) {
    host_tool("/sbin/no_del_share").exits(1);
    EXPECT_EQ(
        hint("system_call_no_del_share_add", R"({"share_name":"s"})"),
        std::string("ksctl: system_call_no_del_share_add: the tool failed; it runs /sbin/no_del_share add <share_name> "
                    "VexHubServer; the daemon's log is ") +
            kDaemonLog + "\n");
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
    const std::filesystem::path open = "/proc/" + std::to_string(daemon_.pid()) + "/fd";
    EXPECT_TRUE(wait_until([&] { // the doctor's own connections are being closed meanwhile
        const auto count = std::distance(std::filesystem::directory_iterator(open), {});
        const std::string line = "descriptors: " + std::to_string(count) + " of " + std::to_string(limit.rlim_cur);
        return ksctl({"doctor"}).out.find(line + " in use by process ") != std::string::npos;
    }));
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
    struct {
        long type = 1;
        std::array<char, 4000> body{};
    } record;
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
}

TEST_F(KsctlDaemonTest, DoctorFindsAMissingInstallPath) {
    displaced_files registry;
    registry.take_away("/etc/config/zpkg.conf");
    write_file("/etc/config/zpkg.conf", "[VexHubServer]\nOther = 1\n");
    const finished doctor = ksctl({"doctor"});
    EXPECT_EQ(doctor.status, 20);
    EXPECT_THAT(doctor.out, HasSubstr("note  log: not known without the install path\n"));
    EXPECT_THAT(doctor.out, ContainsRegex("BAD   package registry: no Install_Path of \\[VexHubServer\\] in "
                                          "/etc/config/zpkg.conf\n      remedy: install the package anew"));
}

} // namespace
