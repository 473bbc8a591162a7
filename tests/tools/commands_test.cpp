// What ksctl knows about the daemon's commands: the list that it prints, and the names that it suggests.
#include "kservice.h"
#include "run_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* kMain = "VexHubServer-vexprod";
constexpr const char* kMail = "VexHubServer_send_mail-vexprod";

finished ksctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KSCTL_PROGRAM);
    return run_program(arguments);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// What the document says, as the list prints it: "main NAME SUMMARY", less the blanks that make columns.
std::vector<std::string> documented_lines() {
    std::ifstream document(COMMANDS_DOCUMENT);
    std::vector<std::string> found;
    std::string section;
    for (std::string line; std::getline(document, line);) {
        if (line == "## Main service: `VexHubServer-vexprod`") {
            section = "main";
        } else if (line == "## Mail service: `VexHubServer_send_mail-vexprod`") {
            section = "mail";
        } else if (line.rfind("### `", 0) == 0) {
            std::string summary;
            std::getline(document, summary); // the empty line
            std::getline(document, summary);
            const std::string name = line.substr(5, line.size() - 6);
            found.push_back(std::string(section).append(" ").append(name).append(" ").append(summary));
        }
    }
    return found;
}

std::vector<std::string> printed_lines(const std::string& text) {
    std::vector<std::string> lines = lines_of(text);
    for (std::string& line : lines) {
        const auto both_blank = [](char left, char right) { return left == ' ' && right == ' '; };
        line.erase(std::unique(line.begin(), line.end(), both_blank), line.end());
    }
    return lines;
}

TEST(KsctlCommandsTest, PrintsTheDocumentsCommandsAndSummariesInItsOrder) {
    const finished list = ksctl({"commands"});
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_THAT(list.err, IsEmpty());
    EXPECT_THAT(printed_lines(list.out), ElementsAreArray(documented_lines()));
}

TEST(KsctlCommandsTest, PrintsColumnsTwoBlanksApart) {
    constexpr size_t kName = 6; // behind "main  "
    size_t widest = 0;
    std::set<size_t> columns;
    for (const std::string& line : lines_of(ksctl({"commands"}).out)) {
        const size_t end_of_name = line.find(' ', kName);
        widest = std::max(widest, end_of_name);
        columns.insert(line.find_first_not_of(' ', end_of_name));
    }
    EXPECT_THAT(columns, ElementsAre(widest + 2)) << "all summaries begin there";
}

TEST(KsctlCommandsTest, PrintsOneServicesCommandsAsTheyStandInTheWholeList) {
    const finished main = ksctl({"commands", "--service", "main"});
    const finished mail = ksctl({"commands", "--service", "mail"});
    EXPECT_EQ(main.status, 0);
    EXPECT_EQ(mail.status, 0);
    EXPECT_THAT(lines_of(main.out), AllOf(Not(IsEmpty()), Each(StartsWith("main  "))));
    EXPECT_THAT(lines_of(mail.out), AllOf(Not(IsEmpty()), Each(StartsWith("mail  "))));
    EXPECT_EQ(main.out + mail.out, ksctl({"commands"}).out);
}

TEST(KsctlCommandsTest, AnUnknownServiceIsAUsageError) {
    const finished list = ksctl({"commands", "--service", "notify"});
    EXPECT_EQ(list.status, 2);
    EXPECT_THAT(list.out, IsEmpty());
    EXPECT_THAT(list.err, StartsWith("ksctl: --service: notify not in"));
}

TEST(KsctlDescribeTest, NamesANearCommandOnceAndTheServiceThatHasIt) {
    const finished near = ksctl({"describe", "tesst"}); // both services have a "test"
    EXPECT_EQ(near.status, 2);
    EXPECT_EQ(near.err, "ksctl: no command tesst is known; did you mean test?\n");
    const finished elsewhere = ksctl({"describe", "sendmail", "--service", "main"});
    EXPECT_EQ(elsewhere.status, 2);
    EXPECT_EQ(elsewhere.err, "ksctl: VexHubServer-vexprod is not known to have a command sendmail; mail "
                             "(VexHubServer_send_mail-vexprod) has it\n");
    EXPECT_EQ(ksctl({"describe", "frobnicate"}).err,
              "ksctl: no command frobnicate is known; ksctl commands lists them\n");
}

TEST(KsctlDescribeTest, TellsAllOfACommand) {
    EXPECT_EQ(ksctl({"describe", "get_sess_id"}).out, R"(get_sess_id (main: VexHubServer-vexprod)
  Logs a user in and returns the session's id.

Keys of the request
  user (string): the user's name
  pwd (string): the password; as an argument it is visible in the process list

On the host
  Runs /sbin/zcli -l user=<user> pw=<pwd>
  The tool has the daemon's environment. Each argument after `-l` is cut to 31
    characters. The id is the second of three words in the second of two lines.

Example
  ksctl call main get_sess_id '{"user":"admin","pwd":"secret"}'
  {"error_code":0,"sid":"s0ab12cd"}

Other replies, and what they mean
  {"error_code":-1,"error_msg":"input error"}
    the request is not JSON.
  {"error_code":-1,"error_msg":"paser fail"}
    a key is missing or of another type.
  {"error_code":-2,"error_msg":"get_sess_id fail"} to `{"user":"admin","pwd":"wrong"}`
    the tool printed no session.
)");
    EXPECT_THAT(
        ksctl({"describe", "install_app"}).out,
        EndsWith("\n  {\n  \t\"cli_ret\" : 0,\n  \t\"result\" : 0,\n  \t\"result_out\" : \"aW5zdGFsbGVkCg==\"\n  }\n"
                 "\nOther replies, and what they mean\n"
                 "  {\"error_code\":-1,\"error_msg\":\"input error\"} to `{\"app_file_path\":[]}`\n"
                 "    the request is no JSON object, or a value is an array or an object.\n"
                 "  no reply\n"
                 "    the script failed. What it printed stays in a temporary file and in the log.\n"));
    EXPECT_THAT(ksctl({"describe", "reverse_proxy"}).out,
                HasSubstr("\n  no reply to {\"action\":\"start\"}\n    an unknown action, with nothing done.\n"));
}

TEST(KsctlDescribeTest, TellsOfACommandOfBothServices) {
    EXPECT_EQ(ksctl({"describe", "test"}).out, R"(test (main: VexHubServer-vexprod)
  Checks that the main service answers.

Keys of the request
  none; the request is not read

Example
  ksctl call main test
  {"handler":"test_handler","service":"VexHubServer-vexprod"}

test (mail: VexHubServer_send_mail-vexprod)
  Checks that the mail service answers.

Keys of the request
  none; the request is not read

Example
  ksctl call mail test
  {"handler":"hos_test_sendmail_srv_handler","service":"VexHubServer_send_mail-vexprod"}
)");
}

TEST(KsctlDescribeTest, IndentsWhatALineCannotHold) {
    EXPECT_THAT(
        ksctl({"describe", "sendmail"}).out,
        AllOf(HasSubstr("\n  config_file (string): the program's configuration, a file in\n"
                        "    `/tmp/vexsurveillance_sendmail`\n"),
              HasSubstr("\n  Writes /tmp/.vexsurveillance_log/sendmail.dbg: the run, password included;\n    only ")))
        << "one column too few for the word";
}

// Answers with the command that it was sent.
int serve(const char* command, ks_io* io, int fd) {
    const std::string_view reply = command;
    ks_io_realloc(io, 0);
    EXPECT_EQ(ks_io_write(io, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    ks_reply(io);
    if (fd >= 0) {
        close(fd);
    }
    ks_io_free(io);
    return 0;
}

class KsctlSuggestionTest : public testing::Test {
protected:
    void start(const std::string& name) {
        services_.emplace_back(ks_create(name.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, serve));
        ks_start(services_.back().get());
    }
    // What ksctl says on standard error about a call, which has to be sent as it was asked for.
    static std::string said(const char* service, const std::string& command) {
        const finished call = ksctl({"call", service, command});
        EXPECT_EQ(call.status, 0) << call.err;
        EXPECT_EQ(call.out, command);
        return call.err;
    }

private:
    struct end_service {
        void operator()(ks_handle* service) const { ks_free(service); }
    };
    std::vector<std::unique_ptr<ks_handle, end_service>> services_;
};

TEST_F(KsctlSuggestionTest, NamesANearCommandAndSendsWhatWasAsked) {
    start(kMain);
    EXPECT_EQ(said(kMain, "get_hwns"),
              "ksctl: VexHubServer-vexprod is not known to have a command get_hwns; did you mean get_hwsn?\n");
    EXPECT_THAT(said(kMain, "get_all_user"), HasSubstr("did you mean get_all_users?"));
    EXPECT_THAT(said(kMain, "exec_cli "), HasSubstr("did you mean exec_cli?"));
}

TEST_F(KsctlSuggestionTest, PingAndConformNameANearCommand) {
    start(kMain);
    const char* hint = "ksctl: VexHubServer-vexprod is not known to have a command tets; did you mean test?\n";
    const finished ping = ksctl({"ping", kMain, "-c", "1", "--command", "tets"});
    EXPECT_EQ(ping.status, 0);
    EXPECT_EQ(ping.err, hint);
    const finished conform = ksctl({"conform", kMain, "--command", "tets"});
    EXPECT_EQ(conform.status, 0) << conform.out;
    EXPECT_EQ(conform.err, hint);
}

TEST_F(KsctlSuggestionTest, ReachesTwoLettersFar) {
    start(kMain);
    EXPECT_THAT(said(kMain, "gtvpd_chanel"), HasSubstr("did you mean get_vpd_channel?"));      // two left out
    EXPECT_THAT(said(kMain, "geet_vpd_channels"), HasSubstr("did you mean get_vpd_channel?")); // two put in
    EXPECT_THAT(said(kMain, "set_vpd_channer"), HasSubstr("did you mean get_vpd_channel?"));   // two replaced
    EXPECT_EQ(said(kMain, "gtvpdchnne"), "ksctl: VexHubServer-vexprod is not known to have a command gtvpdchnne; ksctl "
                                         "commands lists those that it has\n"); // three left out
}

TEST_F(KsctlSuggestionTest, CaseAndSeparatorsDoNotCount) {
    start(kMain);
    EXPECT_THAT(said(kMain, "Exec_CLI"), HasSubstr("did you mean exec_cli?"));
    EXPECT_THAT(said(kMain, "get-vpd-channel"), HasSubstr("did you mean get_vpd_channel?"));
    EXPECT_THAT(said(kMain, "GetHwSn"), HasSubstr("did you mean get_hwsn?"));
}

TEST_F(KsctlSuggestionTest, NamesThatBeginWithWhatWasAskedOrContainIt) {
    start(kMain);
    EXPECT_THAT(said(kMain, "system_vxb"), HasSubstr("did you mean system_vxb_smb_setfolder_priv?"));
    EXPECT_THAT(said(kMain, "get_all"), HasSubstr("did you mean get_all_users or get_all_groups?"));
    EXPECT_THAT(said(kMain, "get_vpd"),
                HasSubstr("did you mean get_vpd_productnamed, get_vpd_eepkey, get_vpd_channel or one of 1 more?"));
    EXPECT_THAT(said(kMain, "system_call_cloud_get_device"),
                HasSubstr("did you mean system_call_cloud_get_device_list, system_call_cloud_get_device_info or "
                          "system_call_cloud_get_device_status?"));
    EXPECT_THAT(said(kMain, "cmv"), HasSubstr("did you mean cmv_cli?"));
    EXPECT_THAT(said(kMain, "cm"), HasSubstr("; ksctl commands lists those that it has")); // too short
    EXPECT_THAT(said(kMain, "findly_list"), HasSubstr("did you mean system_call_findly_list_add?"));
    EXPECT_THAT(said(kMain, "hos_get_hwsn_handler"), HasSubstr("did you mean get_hwsn?"));
}

TEST_F(KsctlSuggestionTest, PrefersTheNearest) {
    start(kMain);
    EXPECT_THAT(said(kMain, "system_call_cloud_analysis_uregister"),
                HasSubstr("did you mean system_call_cloud_analysis_register or "
                          "system_call_cloud_analysis_unregister?")); // one letter from both
    EXPECT_THAT(said(kMain, "system_call_cloud_analysis_unregiste"),
                HasSubstr("did you mean system_call_cloud_analysis_unregister?"));
    EXPECT_THAT(said(kMain, "get_se"), HasSubstr("did you mean get_sess_id?")); // vex_auth_get_session contains it
}

TEST_F(KsctlSuggestionTest, SaysNothingAboutCommandsThatTheServiceHas) {
    start(kMain);
    EXPECT_THAT(said(kMain, "get_hwsn"), IsEmpty());
    EXPECT_THAT(said(kMain, "test"), IsEmpty());
}

TEST_F(KsctlSuggestionTest, KnowsEachServicesOwnCommands) {
    start(kMain);
    start(kMail);
    EXPECT_EQ(said(kMail, "sendmai"),
              "ksctl: VexHubServer_send_mail-vexprod is not known to have a command sendmai; did you mean sendmail?\n");
    EXPECT_EQ(said(kMain, "sendmail"), "ksctl: VexHubServer-vexprod is not known to have a command sendmail; mail "
                                       "(VexHubServer_send_mail-vexprod) has it\n");
    EXPECT_EQ(said(kMail, "get_hwsn"), "ksctl: VexHubServer_send_mail-vexprod is not known to have a command get_hwsn; "
                                       "main (VexHubServer-vexprod) has it\n");
}

TEST_F(KsctlSuggestionTest, MainAndMailStandForTheServices) {
    start(kMain);
    start(kMail);
    EXPECT_THAT(said("main", "get_hwsn"), IsEmpty());
    EXPECT_THAT(said("mail", "sendmail"), IsEmpty());
    EXPECT_THAT(said("mail", "sendmai"), HasSubstr("did you mean sendmail?"));
    EXPECT_EQ(ksctl({"path", "main"}).out, ksctl({"path", kMain}).out);
    EXPECT_EQ(ksctl({"path", "mail"}).out, ksctl({"path", kMail}).out);
    EXPECT_EQ(ksctl({"wait", "main", "--timeout", "0"}).status, 0);
    EXPECT_EQ(ksctl({"ping", "mail", "-c", "1"}).status, 0);
    EXPECT_EQ(ksctl({"commands", "--service", kMail}).out, ksctl({"commands", "--service", "mail"}).out);
    EXPECT_EQ(ksctl({"listen", "main"}).err, "ksctl: somebody else serves main (/var/run/ks/5C7A9C5E.sock)\n");
}

TEST_F(KsctlSuggestionTest, SaysNothingAboutOtherServices) {
    const std::string path = "@" + (std::filesystem::temp_directory_path() / "suggestion-test").string();
    start(path);
    start("VexHubServer_notify-vexprod");
    EXPECT_THAT(said(path.c_str(), "get_hwns"), IsEmpty());
    EXPECT_THAT(said("VexHubServer_notify-vexprod", "get_hwns"), IsEmpty());
}

} // namespace
