// docs/commands.md keeps its word: whatever it says about a command in a form that can be checked is checked against
// the real daemon on the simulated host.
#include "command_document.h"
#include "command_table.h"
#include "daemon_process.h"
#include "documented_calls.h"
#include "host_tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <sys/xattr.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char* kRecords = "/var/lib/hostsim/calls";

// "`CODE`" at the beginning of `text`, behind `word`.
std::optional<std::string> code_after(const std::string& text, const std::string& word) {
    if (!text.starts_with(word + "`")) {
        return std::nullopt;
    }
    const std::size_t begin = word.size() + 1;
    return text.substr(begin, text.find('`', begin) - begin);
}

// `text` with the request's values and the registry's in place of "<NAME>".
std::string filled(std::string text, const documented_command& command) {
    const Json::Value request = parsed(command.request);
    std::map<std::string, std::string> values = {{"Install_Path", "/share/VexHubServer"},
                                                 {"Shell", "/share/VexHubServer/VexHubServer.sh"}};
    for (const Json::Value& source : {request, request["rule_list"][0]}) {
        for (const std::string& name : source.isObject() ? source.getMemberNames() : Json::Value::Members()) {
            if (!source[name].isArray()) {
                values[name] = source[name].asString();
            }
        }
    }
    values.try_emplace("des_protocol", "http"); // the documented default
    for (const auto& [name, value] : values) {
        const std::string key = "<" + name + ">";
        for (std::size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + value.size())) {
            text.replace(at, key.size(), value);
        }
    }
    return text;
}

// A tool's path as its records are filed, and its arguments, each behind a line feed.
struct tool_use {
    std::string tool;
    std::string arguments;
};

std::string record_name(std::string path) {
    std::replace(path.begin(), path.end(), '/', '_');
    return path;
}

tool_use documented_use(const documented_command& command, const documented_line& line) {
    tool_use use;
    for (const std::string& word : line.code) {
        const bool first = &word == line.code.data();
        (first ? use.tool : use.arguments) +=
            first || word == "…" ? filled(word, command) : "\n" + filled(word, command);
    }
    use.tool = record_name(use.tool);
    return use;
}

// How "Reads `FILE` `SECTION` `FIELD`" is done.
tool_use setting_use(const documented_line& line) {
    return {"_sbin_cfgread",
            "\n" + line.code.at(1) + "\n" + line.code.at(2) + "\n-c\n-d\nCFGREAD_FAILD\n-f\n" + line.code.at(0)};
}

struct recorded_use : tool_use {
    bool empty_environment;
};

// All that the host's tools were called for since the records were cleared.
std::vector<recorded_use> recorded_uses() {
    std::vector<recorded_use> uses;
    for (const auto& tool : fs::directory_iterator(kRecords)) {
        for (const auto& call : fs::directory_iterator(tool.path())) {
            if (!call.is_directory()) {
                continue; // a library's
            }
            std::istringstream words(read_file(call.path() / "argv"));
            std::string word;
            std::getline(words, word, '\0');
            std::string arguments;
            while (std::getline(words, word, '\0')) {
                arguments += "\n" + word;
            }
            uses.push_back({{tool.path().filename(), arguments}, read_file(call.path() / "env").empty()});
        }
    }
    return uses;
}

void clear_records() {
    for (const auto& tool : fs::directory_iterator(kRecords)) {
        fs::remove_all(tool.path());
    }
}

bool is_use(const tool_use& documented, const tool_use& recorded) {
    return documented.tool == recorded.tool && fits(documented.arguments, recorded.arguments);
}

// Compares what the example did on the host with the entry's lines.
void expect_documented_uses(const documented_command& command) {
    std::vector<tool_use> certain;
    std::vector<tool_use> settings;
    std::vector<tool_use> possible;
    for (const documented_line& line : command.lines_of("Runs")) {
        certain.push_back(documented_use(command, line));
    }
    for (const documented_line& line : command.lines_of("Reads")) {
        settings.push_back(setting_use(line));
    }
    for (const documented_line& line : command.lines_of("May run")) {
        possible.push_back(documented_use(command, line));
    }
    const auto any = [](const std::vector<tool_use>& uses, const tool_use& recorded) {
        return std::any_of(uses.begin(), uses.end(), [&](const tool_use& each) { return is_use(each, recorded); });
    };
    const std::vector<recorded_use> recorded = recorded_uses();
    const bool inherits = command.says("the daemon's environment");
    for (const recorded_use& each : recorded) {
        const bool setting = any(settings, each);
        EXPECT_TRUE(setting || any(certain, each) || any(possible, each)) << each.tool << each.arguments;
        // The shell adds to the environment of what it runs.
        if (!setting && each.tool.find("nc_wrapper") == std::string::npos) {
            EXPECT_NE(each.empty_environment, inherits) << each.tool;
        }
    }
    for (const auto& uses : {certain, settings}) {
        for (const tool_use& each : uses) {
            const bool kept_record = each.tool != "_bin_sh" && each.tool != "_usr_bin_getfattr"; // not stand-ins
            EXPECT_EQ(kept_record, std::any_of(recorded.begin(), recorded.end(),
                                               [&](const recorded_use& done) { return is_use(each, done); }))
                << each.tool << each.arguments;
        }
    }
}

void expect_documented_traces(const documented_command& command) {
    for (const documented_line& line : command.lines_of("Calls")) { // "`FUNCTION` of `LIBRARY`"
        const std::string library = code_after(line.text, " of ").value();
        const std::string log = read_file(std::string(kRecords) + "/" + record_name(library) + "/log");
        EXPECT_EQ(log.substr(0, log.find_first_of(" \n")), line.code.at(0)) << log;
    }
    for (const documented_line& line : command.lines_of("Writes")) {
        EXPECT_TRUE(file_exists(filled(line.code.at(0), command))) << line.code.at(0);
    }
}

class CommandsDocumentTest : public testing::Test {
protected:
    void SetUp() override {
        commands_ = read_command_document(read_file(COMMANDS_DOCUMENT));
        all_commands_ = commands_;
        left_out_ = leave_out_unpreparable(commands_);
        ASSERT_TRUE(daemon_.serves());
    }
    answer run_example(const documented_command& command) {
        provide_all(command);
        clear_records();
        return send(command, command.request);
    }
    // A request that is not the example's has to be refused with a reply that the entry shows.
    void expect_refused(const documented_command& command, const std::string& request) {
        provide_all(command);
        const answer got = send(command, request);
        EXPECT_TRUE(is_documented(command, got)) << request << "\n" << shown(got);
        EXPECT_NE(got, answer(example_reply(command))) << request;
    }

    daemon_process daemon_;
    std::vector<documented_command> all_commands_;
    std::vector<documented_command> commands_; // those whose examples can be prepared
    std::string left_out_;
};

TEST_F(CommandsDocumentTest, NamesAndTheirOrderAreTheTables) {
    const auto documented = [this](const char* service) {
        std::vector<std::string> names;
        for (const documented_command& each : all_commands_) {
            if (each.service == service) {
                names.push_back(each.name);
            }
        }
        return names;
    };
    const auto served = [](std::span<const command_entry> table) {
        std::vector<std::string> names;
        for (const command_entry& each : table) {
            names.emplace_back(each.command);
        }
        return names;
    };
    EXPECT_THAT(documented("VexHubServer-vexprod"), ElementsAreArray(served(main_commands())));
    EXPECT_THAT(documented("VexHubServer_send_mail-vexprod"), ElementsAreArray(served(mail_commands())));
    EXPECT_EQ(all_commands_.size(), main_commands().size() + mail_commands().size());
}

TEST_F(CommandsDocumentTest, EveryExampleCanBePreparedHere) {
    if (!left_out_.empty()) {
        GTEST_SKIP() << left_out_;
    }
    EXPECT_EQ(commands_.size(), all_commands_.size());
}

TEST_F(CommandsDocumentTest, EveryEntryHasASummaryOnOneLineAndAnExample) {
    for (const documented_command& command : commands_) {
        SCOPED_TRACE(command.service + " " + command.name);
        EXPECT_TRUE(command.summary.ends_with('.') && command.summary.size() <= 100) << command.summary;
        EXPECT_THAT(command.request, testing::StartsWith("{"));
        EXPECT_THAT(command.reply, testing::StartsWith("{"));
        EXPECT_EQ(command.lines_of("Key").empty(), command.says("No keys: the request is not read."));
    }
}

TEST_F(CommandsDocumentTest, ExamplesGetTheirRepliesByteForByte) {
    for (const documented_command& command : commands_) {
        SCOPED_TRACE(command.service + " " + command.name);
        const answer got = run_example(command);
        EXPECT_EQ(got.value_or("no reply"), example_reply(command));
    }
}

TEST_F(CommandsDocumentTest, ExamplesDoOnTheHostWhatTheirEntriesSay) {
    for (const documented_command& command : commands_) {
        SCOPED_TRACE(command.service + " " + command.name);
        ASSERT_TRUE(run_example(command));
        expect_documented_uses(command);
        expect_documented_traces(command);
    }
}

TEST_F(CommandsDocumentTest, EveryKeyIsNeededInItsTypeAndTheExampleHasNoOthers) {
    for (const documented_command& command : commands_) {
        SCOPED_TRACE(command.service + " " + command.name);
        const Json::Value example = parsed(command.request);
        std::vector<std::string> names;
        for (const documented_key& key : command.keys()) {
            names.push_back(key.name);
            if (!key.required) {
                continue;
            }
            ASSERT_TRUE(example.isMember(key.name)) << key.name;
            for (const std::string& request : requests_without(command, key)) {
                expect_refused(command, request);
            }
        }
        for (const std::string& name : example.getMemberNames()) {
            EXPECT_THAT(names, testing::Contains(name));
        }
    }
}

TEST_F(CommandsDocumentTest, TextsThatAreNotJsonAreRefusedAsPrintedOrNotRead) {
    for (const documented_command& command : commands_) {
        SCOPED_TRACE(command.service + " " + command.name);
        if (!command.lines_of("Key").empty()) {
            expect_refused(command, "{");
        } else {
            provide_all(command);
            EXPECT_EQ(send(command, "{").value_or("no reply"), example_reply(command));
        }
    }
}

TEST_F(CommandsDocumentTest, RequestsBesideOtherRepliesGetThese) {
    for (const documented_command& command : commands_) {
        SCOPED_TRACE(command.service + " " + command.name);
        for (const documented_line& line : command.lines_of("Replies")) {
            if (const auto request = code_after(line.text, " to ")) {
                provide_all(command);
                const answer got = send(command, *request);
                EXPECT_TRUE(got && fits(line.code.at(0) + "\n", *got)) << *request << "\n" << shown(got);
            }
        }
        for (const documented_line& line : command.lines_of("No reply to")) {
            provide_all(command);
            EXPECT_EQ(send(command, line.code.at(0)), std::nullopt) << line.code.at(0);
        }
    }
}

TEST_F(CommandsDocumentTest, FailuresOfLibrariesEndAsPrinted) {
    for (const documented_command& command : commands_) {
        SCOPED_TRACE(command.service + " " + command.name);
        for (const documented_line& line : command.lines_of("Calls")) {
            const std::string library = code_after(line.text, " of ").value();
            fs::rename(library, library + ".away");
            const answer got = send(command, command.request);
            EXPECT_TRUE(is_documented(command, got)) << shown(got);
            fs::rename(library + ".away", library);
        }
    }
}

TEST_F(CommandsDocumentTest, FailuresOfToolsEndAsPrinted) {
    for (const documented_command& command : commands_) {
        SCOPED_TRACE(command.service + " " + command.name);
        (void)run_example(command);
        std::vector<std::string> tools;
        for (const char* word : {"Runs", "May run"}) {
            for (const documented_line& line : command.lines_of(word)) {
                tools.push_back(filled(line.code.at(0), command));
            }
        }
        if (!command.lines_of("Reads").empty()) {
            tools.emplace_back("/sbin/cfgread");
        }
        for (const std::string& path : tools) {
            SCOPED_TRACE(path);
            provide_all(command);
            host_tool tool(path);
            tool.exits(1);
            const answer got = send(command, command.request);
            if (got != answer(example_reply(command))) {
                EXPECT_TRUE(is_documented(command, got)) << shown(got);
            } else if (!tool.calls().empty()) {
                EXPECT_TRUE(command.says("exit status")) << "the failure does not show";
            }
            tool.clear();
        }
    }
}

TEST_F(CommandsDocumentTest, ACommandThatIsNotInTheListGetsNoReply) {
    std::string reply;
    EXPECT_EQ(call_service("VexHubServer-vexprod", "sendmail", "{}", &reply), 5U);
    EXPECT_EQ(call_service("VexHubServer_send_mail-vexprod", "get_hwsn", "{}", &reply), 5U);
    EXPECT_THAT(reply, IsEmpty());
}

} // namespace
