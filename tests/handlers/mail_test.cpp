#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "unique_fd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kSpool = "/tmp/vexsurveillance_sendmail/";
const std::string kLogs = "/tmp/.vexsurveillance_log/";
constexpr const char* kPlain = R"({"user":"","pwd":"","config_file":"m.conf","content_file":"m.txt"})";
constexpr const char* kSignedIn = R"({"user":"cam","pwd":"s3cret","config_file":"m.conf","content_file":"m.txt"})";

class MailTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        fs::remove_all(kSpool);
        fs::remove_all(kLogs);
        fs::create_directories(kSpool);
        fs::create_directories(kLogs);
        write_file(kSpool + "m.conf", "the configuration");
        write_file(kSpool + "m.txt", "the mail");
        program.reads_stdin().exits(0);
    }
    static strings record() {
        strings lines;
        std::istringstream text(read_file(kLogs + "sendmail.dbg"));
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    host_tool program{"/usr/sbin/sendmail"};
};

TEST_F(MailTest, WithoutUserTheMailIsTheProgramsInput) {
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":0}\n");
    const auto calls = program.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_THAT(calls[0].argv, ElementsAre("sendmail", "-C", "/tmp/vexsurveillance_sendmail/m.conf", "-t"));
    EXPECT_EQ(calls[0].stdin_text, "the mail");
}

TEST_F(MailTest, UserWithoutPasswordAndPasswordWithoutUserAreNoSignIn) {
    for (const char* request : {R"({"user":"cam","pwd":"","config_file":"m.conf","content_file":"m.txt"})",
                                R"({"user":"","pwd":"s3cret","config_file":"m.conf","content_file":"m.txt"})"}) {
        program.clear();
        program.reads_stdin().exits(0);
        write_file(kSpool + "m.txt", "the mail");
        EXPECT_EQ(ask(hos_sendmail_handler, request), "{\"result\":0}\n");
        ASSERT_EQ(program.calls().size(), 1U);
        EXPECT_THAT(program.calls()[0].argv,
                    ElementsAre("sendmail", "-C", "/tmp/vexsurveillance_sendmail/m.conf", "-t"));
        EXPECT_EQ(program.calls()[0].stdin_text, "the mail");
    }
}

TEST_F(MailTest, SignedInThePasswordGoesUnderTheUsersOptionAndTheConfigurationIsTheInput) {
    EXPECT_EQ(ask(hos_sendmail_handler, kSignedIn), "{\"result\":0}\n");
    const auto calls = program.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_THAT(calls[0].argv,
                ElementsAre("sendmail", "-aucam", "-aus3cret", "-C", "/tmp/vexsurveillance_sendmail/m.conf", "-t"));
    EXPECT_EQ(calls[0].stdin_text, "the configuration");
}

TEST_F(MailTest, TheProgramHasTheDaemonsEnvironmentLessTheLibraryPath) {
    setenv("MAIL_TEST", "inherited", 1);
    setenv("LD_LIBRARY_PATH", "/tmp/no-such-folder", 1);
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":0}\n");
    unsetenv("LD_LIBRARY_PATH");
    ASSERT_EQ(program.calls().size(), 1U);
    EXPECT_THAT(program.calls()[0].env, Contains("MAIL_TEST=inherited"));
    EXPECT_THAT(program.calls()[0].env, testing::Each(testing::Not(testing::StartsWith("LD_LIBRARY_PATH="))));
}

TEST_F(MailTest, OutputAndErrorsOfTheProgramShareOneLog) {
    program.complains("errors ").answers("output");
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":0}\n");
    EXPECT_EQ(read_file(kLogs + "sendmail.log"), "errors output");
}

TEST_F(MailTest, OptionsAreCutAt63Characters) {
    const auto send = [](const std::string& user, const std::string& password) {
        write_file(kSpool + "m.conf", "c");
        (void)ask(hos_sendmail_handler, R"({"user":")" + user + R"(","pwd":")" + password +
                                            R"(","config_file":"m.conf","content_file":"m.txt"})");
    };
    send(std::string(60, 'u'), std::string(60, 'p'));
    send(std::string(61, 'u'), std::string(200, 'p'));
    const auto calls = program.calls();
    ASSERT_EQ(calls.size(), 2U);
    for (const tool_call& call : calls) {
        EXPECT_EQ(call.argv[1], "-au" + std::string(60, 'u'));
        EXPECT_EQ(call.argv[2], "-au" + std::string(60, 'p'));
    }
}

TEST_F(MailTest, AnOptionEndsAtItsFirstNulAndKeepsBytesThatAreNoText) {
    EXPECT_EQ(
        ask(hos_sendmail_handler,
            "{\"user\":\"a\\u0000b\",\"pwd\":\"\xff\xfe\",\"config_file\":\"m.conf\",\"content_file\":\"m.txt\"}"),
        "{\"result\":0}\n");
    ASSERT_EQ(program.calls().size(), 1U);
    EXPECT_EQ(program.calls()[0].argv[1], "-aua");
    EXPECT_EQ(program.calls()[0].argv[2], "-au\xff\xfe");
}

TEST_F(MailTest, PathsAreCutAt255Characters) {
    const std::string fits(255 - kSpool.size(), 'f');
    write_file(kSpool + fits, "cut to this one");
    EXPECT_EQ(
        ask(hos_sendmail_handler, R"({"user":"","pwd":"","config_file":"m.conf","content_file":")" + fits + R"("})"),
        "{\"result\":0}\n");
    write_file(kSpool + fits, "cut to this one");
    EXPECT_EQ(
        ask(hos_sendmail_handler, R"({"user":"","pwd":"","config_file":"m.conf","content_file":")" + fits + R"(g"})"),
        "{\"result\":0}\n");
    ASSERT_EQ(program.calls().size(), 2U);
    EXPECT_EQ(program.calls()[1].stdin_text, "cut to this one");
    EXPECT_THAT(record(), Contains("str_content_path=[" + kSpool + fits + "]"));
}

TEST_F(MailTest, AConfigurationNameOf300CharactersRunsNothing) {
    EXPECT_EQ(ask(hos_sendmail_handler, R"({"user":"cam","pwd":"s3cret","content_file":"m.txt","config_file":")" +
                                            std::string(300, 'c') + R"("})"),
              "{\"result\":-1}\n");
    EXPECT_THAT(program.calls(), IsEmpty());
    EXPECT_THAT(record(), Contains("str_conf_path=[" + kSpool + std::string(255 - kSpool.size(), 'c') + "]"));
}

TEST_F(MailTest, WithoutUserTheConfigurationsPathIsCutAt255CharactersAsWell) {
    const std::string cut = kSpool + std::string(255 - kSpool.size(), 'c');
    for (const std::size_t length : {cut.size() - kSpool.size(), cut.size() - kSpool.size() + 1, std::size_t{300}}) {
        write_file(kSpool + "m.txt", "the mail");
        EXPECT_EQ(ask(hos_sendmail_handler, R"({"user":"","pwd":"","content_file":"m.txt","config_file":")" +
                                                std::string(length, 'c') + R"("})"),
                  "{\"result\":0}\n");
        ASSERT_FALSE(program.calls().empty());
        EXPECT_THAT(program.calls().back().argv, ElementsAre("sendmail", "-C", cut, "-t"));
    }
    EXPECT_EQ(program.calls().size(), 3U);
}

TEST_F(MailTest, NamesAreNotLookedInto) {
    write_file("/tmp/elsewhere.conf", "c");
    write_file("/tmp/elsewhere.txt", "mail of elsewhere");
    EXPECT_EQ(ask(hos_sendmail_handler,
                  R"({"user":"","pwd":"","config_file":"../elsewhere.conf","content_file":"../elsewhere.txt"})"),
              "{\"result\":0}\n");
    ASSERT_EQ(program.calls().size(), 1U);
    EXPECT_EQ(program.calls()[0].argv[2], "/tmp/vexsurveillance_sendmail/../elsewhere.conf");
    EXPECT_EQ(program.calls()[0].stdin_text, "mail of elsewhere");
}

TEST_F(MailTest, ResultIsTheProgramsWaitStatus) {
    program.answers("refused").exits(3);
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":768}\n");
    EXPECT_EQ(read_file(kLogs + "sendmail.log"), "refused");
    write_file(kSpool + "m.txt", "the mail");
    program.dies_by(9);
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":9}\n");
}

TEST_F(MailTest, AProgramThatCannotBeStartedIs32512) {
    programs.take_away("/usr/sbin/sendmail");
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":32512}\n");
}

TEST_F(MailTest, AMissingMailRunsNothingAndRemovesTheLog) {
    write_file(kLogs + "sendmail.log", "of the mail before");
    fs::remove(kSpool + "m.txt");
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":-1}\n");
    EXPECT_THAT(program.calls(), IsEmpty());
    EXPECT_FALSE(file_exists(kLogs + "sendmail.log"));
    EXPECT_THAT(record(), Contains("ret_val=[-1]"));
}

TEST_F(MailTest, TheSpoolIsEmptiedIntoTheLogsFolder) {
    program.exits(1); // also after a failed run
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":256}\n");
    EXPECT_TRUE(fs::is_empty(kSpool));
    EXPECT_EQ(read_file(kLogs + "sendmail.conf"), "the configuration");
    EXPECT_EQ(read_file(kLogs + "sendmail.content"), "the mail");
}

TEST_F(MailTest, AFolderIsNeverMovedWhateverNamesIt) {
    fs::create_directories(kSpool + "sub");
    write_file(kSpool + "waiting.txt", "a mail that waits");
    for (const std::string name : {"", "/", ".", "..", "sub", "sub/", "sub/..", "../vexsurveillance_sendmail",
                                   "../../tmp/vexsurveillance_sendmail/"}) {
        EXPECT_EQ(
            ask(hos_sendmail_handler, R"({"user":"","pwd":"","config_file":")" + name + R"(","content_file":"m.txt"})"),
            "{\"result\":0}\n")
            << name;
        EXPECT_EQ(read_file(kLogs + "sendmail.content"), "the mail") << name;
        fs::remove(kLogs + "sendmail.content");
        EXPECT_EQ(ask(hos_sendmail_handler,
                      R"({"user":"","pwd":"","config_file":"m.conf","content_file":")" + name + R"("})"),
                  "{\"result\":0}\n")
            << name;
        EXPECT_EQ(read_file(kLogs + "sendmail.conf"), "the configuration") << name;
        fs::remove(kLogs + "sendmail.conf");
        ASSERT_EQ(read_file(kSpool + "waiting.txt"), "a mail that waits") << name;
        ASSERT_TRUE(fs::is_directory(kSpool + "sub")) << name;
        EXPECT_FALSE(file_exists(kLogs + "sendmail.conf")) << name;
        EXPECT_FALSE(file_exists(kLogs + "sendmail.content")) << name;
        write_file(kSpool + "m.conf", "the configuration");
        write_file(kSpool + "m.txt", "the mail");
    }
}

TEST_F(MailTest, ALinkIsMovedAsItIsWhereverItLeads) {
    fs::create_directories(kSpool + "sub");
    fs::create_directory_symlink(kSpool + "sub", kSpool + "to-folder");
    fs::create_symlink("/nowhere", kSpool + "to-nothing");
    EXPECT_EQ(
        ask(hos_sendmail_handler, R"({"user":"","pwd":"","config_file":"to-nothing","content_file":"to-folder"})"),
        "{\"result\":0}\n");
    EXPECT_EQ(fs::read_symlink(kLogs + "sendmail.conf"), "/nowhere");
    EXPECT_EQ(fs::read_symlink(kLogs + "sendmail.content"), kSpool + "sub");
    EXPECT_TRUE(fs::is_directory(kSpool + "sub"));
}

TEST_F(MailTest, FilesThatCannotBeMovedStayWithoutAReport) {
    fs::create_directories(kLogs + "sendmail.conf/taken");
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":0}\n");
    EXPECT_EQ(read_file(kSpool + "m.conf"), "the configuration");
    EXPECT_EQ(read_file(kLogs + "sendmail.content"), "the mail");
}

TEST_F(MailTest, TheRecordHasSevenLines) {
    EXPECT_EQ(ask(hos_sendmail_handler, kSignedIn), "{\"result\":0}\n");
    EXPECT_EQ(read_file(kLogs + "sendmail.dbg"), "str_usr=[cam]\n"
                                                 "str_pwd=[s3cret]\n"
                                                 "str_conf_path=[/tmp/vexsurveillance_sendmail/m.conf]\n"
                                                 "str_content_path=[/tmp/vexsurveillance_sendmail/m.txt]\n"
                                                 "str_cmd_sendmail=[]\n"
                                                 "str_cmd_rm=[]\n"
                                                 "ret_val=[0]\n");
    write_file(kSpool + "m.txt", "the mail");
    program.exits(2);
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":512}\n");
    EXPECT_THAT(record(), ElementsAre("str_usr=[]", "str_pwd=[]", testing::_, testing::_, "str_cmd_sendmail=[]",
                                      "str_cmd_rm=[]", "ret_val=[512]"));
}

TEST_F(MailTest, TheRecordIsForRootAloneWhateverStoodThere) {
    write_file("/tmp/victim", "untouched");
    ASSERT_EQ(symlink("/tmp/victim", (kLogs + "sendmail.dbg").c_str()), 0);
    EXPECT_EQ(ask(hos_sendmail_handler, kSignedIn), "{\"result\":0}\n");
    EXPECT_EQ(read_file("/tmp/victim"), "untouched");
    struct stat status = {};
    ASSERT_EQ(lstat((kLogs + "sendmail.dbg").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));

    // Someone who made the file first and still holds it open does not get to see the password.
    fs::remove(kLogs + "sendmail.dbg");
    const unique_fd held =
        above_standard_streams(unique_fd(open((kLogs + "sendmail.dbg").c_str(), O_RDWR | O_CREAT, 0666)));
    write_file(kSpool + "m.conf", "c");
    EXPECT_EQ(ask(hos_sendmail_handler, kSignedIn), "{\"result\":0}\n");
    char byte = 0;
    EXPECT_EQ(pread(held.get(), &byte, 1, 0), 0);
    ASSERT_EQ(lstat((kLogs + "sendmail.dbg").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
}

constexpr const char* kVictim = "/tmp/victim";

// What somebody may have put at the log's name.
void plant_nothing(const char* /*name*/) {}
void plant_symbolic_link(const char* name) {
    ASSERT_EQ(symlink(kVictim, name), 0);
}
void plant_hard_link(const char* name) {
    ASSERT_EQ(link(kVictim, name), 0);
}
void plant_file_of_another_mode(const char* name) {
    write_file(name, "of the mail before");
    ASSERT_EQ(chmod(name, 0666), 0);
}

TEST_F(MailTest, TheProgramsLogIsAFileOfItsOwnWhateverStoodThere) {
    const std::string log = kLogs + "sendmail.log";
    const mode_t before = umask(0);
    for (const auto& plant : {plant_nothing, plant_symbolic_link, plant_hard_link, plant_file_of_another_mode}) {
        write_file(kVictim, "untouched");
        write_file(kSpool + "m.txt", "the mail");
        program.answers("output");
        fs::remove(log);
        plant(log.c_str());
        EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":0}\n");
        EXPECT_EQ(read_file(kVictim), "untouched");
        EXPECT_EQ(read_file(log), "output");
        struct stat status = {};
        EXPECT_EQ(lstat(log.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0774));

        // Without a mail there is no run, and no log.
        fs::remove(log);
        plant(log.c_str());
        EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":-1}\n");
        EXPECT_EQ(read_file(kVictim), "untouched");
        EXPECT_NE(lstat(log.c_str(), &status), 0);
    }
    (void)umask(before);
}

TEST_F(MailTest, ALinkThatIsPlantedDuringARunIsNotWrittenThrough) {
    const std::string log = kLogs + "sendmail.log";
    write_file(kVictim, "untouched");
    program.answers("output");
    std::atomic<bool> done = false;
    std::thread planter([&] {
        while (!done) {
            (void)unlink(log.c_str());
            (void)symlink(kVictim, log.c_str());
        }
    });
    for (int mails = 0; mails < 50; ++mails) {
        write_file(kSpool + "m.txt", "the mail");
        EXPECT_NE(ask(hos_sendmail_handler, kPlain), std::nullopt);
        EXPECT_EQ(read_file(kVictim), "untouched");
    }
    done = true;
    planter.join();
}

TEST_F(MailTest, AMissingLogsFolderFailsTheRunAlone) {
    fs::remove_all(kLogs);
    EXPECT_EQ(ask(hos_sendmail_handler, kPlain), "{\"result\":-1}\n");
    EXPECT_THAT(program.calls(), IsEmpty());
    EXPECT_EQ(read_file(kSpool + "m.txt"), "the mail");
}

TEST_F(MailTest, TheLogTellsTheRunWithoutThePassword) {
    EXPECT_EQ(ask(hos_sendmail_handler, kSignedIn), "{\"result\":0}\n");
    EXPECT_THAT(logged(),
                ElementsAre("[hos_sendmail_handler][N] exec sendmail start.",
                            "[hos_sendmail_handler][N] str_conf_path=[/tmp/vexsurveillance_sendmail/m.conf].",
                            "[hos_sendmail_handler][N] str_content_path=[/tmp/vexsurveillance_sendmail/m.txt].",
                            "[hos_sendmail_handler][N] str_cmd_sendmail=[].", "[hos_sendmail_handler][N] ret_val=[0].",
                            ""));
}

TEST_F(MailTest, EveryKeyIsRequiredAndNothingRunsWithoutOne) {
    for (const char* request :
         {R"({"pwd":"","config_file":"m.conf","content_file":"m.txt"})",
          R"({"user":"","config_file":"m.conf","content_file":"m.txt"})",
          R"({"user":"","pwd":"","content_file":"m.txt"})", R"({"user":"","pwd":"","config_file":"m.conf"})",
          R"({"user":1,"pwd":"","config_file":"m.conf","content_file":"m.txt"})",
          R"({"user":"","pwd":null,"config_file":"m.conf","content_file":"m.txt"})", "[]"}) {
        EXPECT_EQ(ask(hos_sendmail_handler, request), kPaserFail) << request;
    }
    EXPECT_THAT(program.calls(), IsEmpty());
    EXPECT_TRUE(file_exists(kSpool + "m.txt"));
    EXPECT_FALSE(file_exists(kLogs + "sendmail.dbg"));
    EXPECT_EQ(ask(hos_sendmail_handler, ""), kInputError);
    EXPECT_THAT(logged(), ElementsAre("[hos_sendmail_handler][N] ks_io input fail."));
}

} // namespace
