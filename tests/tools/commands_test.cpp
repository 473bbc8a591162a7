// What ksctl knows about the daemon's commands: the list that it prints, and the names that it suggests.
#include "kservice.h"
#include "run_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
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

struct documented_command {
    std::string section;
    std::string name;
    std::string summary;
};

std::vector<documented_command> documented_commands() {
    std::ifstream document(COMMANDS_DOCUMENT);
    std::vector<documented_command> found;
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
            found.push_back({section, line.substr(5, line.size() - 6), summary});
        }
    }
    return found;
}

TEST(KsctlCommandsTest, PrintsTheDocumentsCommandsAndSummariesInItsOrderAndInColumns) {
    const std::vector<documented_command> documented = documented_commands();
    std::size_t width = 0;
    for (const documented_command& each : documented) {
        width = std::max(width, each.name.size());
    }
    std::vector<std::string> expected;
    for (documented_command each : documented) {
        each.name.resize(width, ' ');
        expected.push_back(each.section.append("  ").append(each.name).append("  ").append(each.summary));
    }
    const finished list = ksctl({"commands"});
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_THAT(list.err, IsEmpty());
    EXPECT_THAT(lines_of(list.out), ElementsAreArray(expected));
    EXPECT_THAT(lines_of(list.out), Contains(MatchesRegex("main  test +Tells that the main service answers\\.")));
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
    EXPECT_THAT(said(kMain, "Exec_CLI"), IsEmpty()); // four letters differ
    EXPECT_THAT(said(kMain, "exec_cli "), HasSubstr("did you mean exec_cli?"));
}

TEST_F(KsctlSuggestionTest, ReachesTwoLettersFar) {
    start(kMain);
    EXPECT_THAT(said(kMain, "getvpd_channe"), HasSubstr("did you mean get_vpd_channel?"));     // two left out
    EXPECT_THAT(said(kMain, "get_vpd__channels"), HasSubstr("did you mean get_vpd_channel?")); // two put in
    EXPECT_THAT(said(kMain, "set_vpd_channer"), HasSubstr("did you mean get_vpd_channel?"));   // two replaced
    EXPECT_THAT(said(kMain, "getvpdchanne"), IsEmpty());                                       // three left out
    EXPECT_THAT(said(kMain, "frobnicate"), IsEmpty());
}

TEST_F(KsctlSuggestionTest, PrefersTheNearestAndThenTheFirst) {
    start(kMain);
    EXPECT_THAT(said(kMain, "system_call_cloud_analysis_uregister"),
                HasSubstr("did you mean system_call_cloud_analysis_register?")); // one letter from both
    EXPECT_THAT(said(kMain, "system_call_cloud_analysis_unregiste"),
                HasSubstr("did you mean system_call_cloud_analysis_unregister?"));
}

TEST_F(KsctlSuggestionTest, SaysNothingAboutCommandsThatTheServiceHas) {
    start(kMain);
    EXPECT_THAT(said(kMain, "get_hwsn"), IsEmpty());
    EXPECT_THAT(said(kMain, "test"), IsEmpty());
}

TEST_F(KsctlSuggestionTest, KnowsEachServicesOwnCommands) {
    start(kMain);
    start(kMail);
    EXPECT_THAT(said(kMain, "sendmai"), IsEmpty());
    EXPECT_EQ(said(kMail, "sendmai"),
              "ksctl: VexHubServer_send_mail-vexprod is not known to have a command sendmai; did you mean sendmail?\n");
    EXPECT_THAT(said(kMail, "get_hwns"), IsEmpty());
}

TEST_F(KsctlSuggestionTest, SaysNothingAboutOtherServices) {
    const std::string path = "@" + (std::filesystem::temp_directory_path() / "suggestion-test").string();
    start(path);
    start("VexHubServer_notify-vexprod");
    EXPECT_THAT(said(path.c_str(), "get_hwns"), IsEmpty());
    EXPECT_THAT(said("VexHubServer_notify-vexprod", "get_hwns"), IsEmpty());
}

} // namespace
