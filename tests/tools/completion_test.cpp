// Completion as the shells have it: what "ksctl complete" says, and that the scripts hand it on.
#include "run_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The candidates for the last word, without what they mean.
std::vector<std::string> complete(std::vector<std::string> words) {
    words.insert(words.begin(), {KSCTL_PROGRAM, "complete"});
    const finished program = run_program(words);
    EXPECT_EQ(program.status, 0) << program.err;
    std::vector<std::string> found = lines_of(program.out);
    for (std::string& line : found) {
        line.erase(line.find('\t'));
    }
    return found;
}

TEST(CompletionTest, FirstComesASubcommand) {
    EXPECT_THAT(complete({"c"}), ElementsAre("call", "commands", "conform"));
    EXPECT_THAT(complete({""}), AllOf(Contains("doctor"), Contains("describe"), Contains("--help")));
    EXPECT_THAT(complete({"nope", ""}), IsEmpty());
    EXPECT_THAT(complete({}), IsEmpty());
}

TEST(CompletionTest, ServicesAndTheirCommands) {
    EXPECT_THAT(complete({"call", "ma"}), ElementsAre("main", "mail"));
    EXPECT_THAT(complete({"call", ""}), ElementsAre("main", "mail", "VexHubServer-vexprod",
                                                    "VexHubServer_send_mail-vexprod", "VexHubServer_notify-vexprod"));
    EXPECT_THAT(complete({"wait", "VexHubServer_n"}), ElementsAre("VexHubServer_notify-vexprod"));
    EXPECT_THAT(complete({"conform", "ma"}), ElementsAre("main", "mail"));
    EXPECT_THAT(complete({"call", "mail", ""}), ElementsAre("test", "sendmail"));
    EXPECT_THAT(complete({"call", "VexHubServer-vexprod", "get_vpd_e"}),
                ElementsAre("get_vpd_eepkey", "get_vpd_ext_area"));
    EXPECT_THAT(complete({"describe", "sendm"}), ElementsAre("sendmail"));
    EXPECT_THAT(complete({"call", "other", ""}), IsEmpty());
    EXPECT_THAT(complete({"path", "main", ""}), IsEmpty()) << "it takes one service";
}

TEST(CompletionTest, OptionsAndTheirValues) {
    EXPECT_THAT(complete({"call", "--"}), AllOf(Contains("--timeout"), Contains("--check"), Not(Contains("--count"))));
    EXPECT_THAT(complete({"call", "--timeout", ""}), IsEmpty());
    EXPECT_THAT(complete({"call", "--timeout", "9", "--pretty", "mai"}), ElementsAre("main", "mail"));
    EXPECT_THAT(complete({"call", "-v", "mai"}), ElementsAre("main", "mail"));
    EXPECT_THAT(complete({"commands", "--service", "m"}), ElementsAre("main", "mail"));
    EXPECT_THAT(complete({"ping", "mail", "--command", "s"}), ElementsAre("sendmail"));
}

TEST(CompletionTest, RequestsAndTheirKeys) {
    EXPECT_THAT(complete({"call", "main", "get_sess_id", ""}), ElementsAre(R"({"user":"","pwd":""})"));
    EXPECT_THAT(complete({"call", "main", "notify_return", ""}), ElementsAre(R"({"cmd":0,"type":0,"acy":0})"));
    EXPECT_THAT(complete({"call", "main", "exec_cli", ""}), ElementsAre(R"({"command":[]})"));
    EXPECT_THAT(complete({"call", "main", "reverse_proxy", ""}), IsEmpty()) << "no key is needed";
    EXPECT_THAT(complete({"call", "main", "get_sess_id", R"({")"}), ElementsAre(R"({"user":)", R"({"pwd":)"));
    EXPECT_THAT(complete({"call", "main", "reverse_proxy", R"({")"}), ElementsAre(R"({"action":)", R"({"rule_list":)"));
    EXPECT_THAT(complete({"call", "main", "get_sess_id", "\""}), IsEmpty());
    EXPECT_THAT(complete({"call", "main", "get_sess_id", "{"}), IsEmpty());
    EXPECT_THAT(complete({"call", "main", "get_sess_id", R"({"user":"x","p)"}), ElementsAre(R"({"user":"x","pwd":)"));
    EXPECT_THAT(complete({"call", "main", "get_sess_id", R"({"user":"x)"}), IsEmpty()) << "a value";
    EXPECT_THAT(complete({"call", "main", "reverse_proxy", R"({"action":"add","rule_list":[{"GU)"}),
                ElementsAre(R"({"action":"add","rule_list":[{"GUID":)"));
    EXPECT_THAT(complete({"call", "main", "get_vpd_channel", ""}), IsEmpty()) << "it has no keys";
    EXPECT_THAT(complete({"call", "main", "unknown", ""}), IsEmpty());
}

TEST(CompletionTest, CandidatesComeWithTheirMeaning) {
    const auto printed = [](std::vector<std::string> words) {
        words.insert(words.begin(), {KSCTL_PROGRAM, "complete"});
        return run_program(words).out;
    };
    EXPECT_EQ(printed({"doctor"}), "doctor\tLook whether all is well with the daemon\n");
    EXPECT_EQ(printed({"call", "mail"}), "mail\tVexHubServer_send_mail-vexprod\n");
    EXPECT_EQ(printed({"describe", "sendmail"}), "sendmail\tGives a prepared mail to the host's mail program.\n");
    EXPECT_EQ(printed({"call", "main", "get_sess_id", R"({"u)"}), "{\"user\":\tstring: the user's name\n");
}

// What a shell makes of it. Each prints one candidate a line; `line` is the command line up to the cursor.
TEST(CompletionTest, BashHasThem) {
    const auto words = [](const std::string& line, int at) {
        return lines_of(run_program({"/bin/bash", "-c",
                                     "PATH=$2:$PATH; . \"$0\"; COMP_WORDS=(" + line +
                                         "); COMP_CWORD=$1; "
                                         "_ksctl; printf '%s\\n' \"${COMPREPLY[@]}\"",
                                     std::string(COMPLETIONS) + "/ksctl.bash", std::to_string(at), KSCTL_FOLDER})
                            .out);
    };
    EXPECT_THAT(words("ksctl cal", 1), ElementsAre("call"));
    EXPECT_THAT(words("ksctl call mail ''", 3), ElementsAre("test", "sendmail"));
    EXPECT_THAT(words("ksctl call main get_sess_id ''", 4), ElementsAre(R"('{"user":"","pwd":""}')"));
    EXPECT_THAT(words(R"(ksctl call main get_sess_id "'{\"us")", 4), ElementsAre(R"({"user":)"))
        << "behind the quote that is there";
}

TEST(CompletionTest, FishHasThem) {
    if (!std::filesystem::exists("/usr/bin/fish")) {
        GTEST_SKIP() << "fish is not installed";
    }
    const auto words = [](const std::string& line) {
        return lines_of(run_program({"/usr/bin/fish", "--no-config", "-c",
                                     "set PATH $argv[2] $PATH; set HOME /tmp; source $argv[1]; complete -C $argv[3]",
                                     std::string(COMPLETIONS) + "/ksctl.fish", KSCTL_FOLDER, line})
                            .out);
    };
    EXPECT_THAT(words("ksctl cal"), ElementsAre("call\tCall a service and print its reply"));
    EXPECT_THAT(words("ksctl call mail "), ElementsAre("sendmail\tGives a prepared mail to the host's mail program.",
                                                       "test\tChecks that the mail service answers."));
    EXPECT_THAT(words("ksctl call main get_sess_id "), SizeIs(1));
}

// Outside of its line editor, zsh runs the function with the words that the editor would give it.
TEST(CompletionTest, ZshHasThem) {
    if (!std::filesystem::exists("/usr/bin/zsh")) {
        GTEST_SKIP() << "zsh is not installed";
    }
    const auto words = [](const std::string& line) {
        return lines_of(run_program({"/usr/bin/zsh", "-f", "-c",
                                     "PATH=$2:$PATH; compadd() { print -rl -- $texts }; _files() { print files }; "
                                     "words=(" +
                                         line + "); CURRENT=$#words; . $1",
                                     "zsh", std::string(COMPLETIONS) + "/_ksctl", KSCTL_FOLDER})
                            .out);
    };
    EXPECT_THAT(words("ksctl cal"), ElementsAre("call"));
    EXPECT_THAT(words("ksctl call mail ''"), ElementsAre("test", "sendmail"));
    EXPECT_THAT(words("ksctl call main get_sess_id ''"), ElementsAre(R"('{"user":"","pwd":""}')"));
    EXPECT_THAT(words(R"(ksctl call main get_sess_id "'{\"us")"), ElementsAre(R"('{"user":)"));
    EXPECT_THAT(words("ksctl call main get_vpd_channel ''"), ElementsAre("files"));
}

} // namespace
