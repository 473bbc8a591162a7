// Many callers at once: every one gets the answer to its own request, and nothing stays behind.
//
// The requests are the documented examples, and a tenth of them spoilt: texts that are not JSON, keys that are missing
// or of another type, commands that do not exist. What each has to be answered was learnt from the same daemon while
// nobody else called. VEXPROD_LOAD_SECONDS and VEXPROD_LOAD_CLIENTS make it longer and wider than the suite has time
// for.
#include "command_document.h"
#include "daemon_process.h"
#include "documented_calls.h"
#include "system_helpers.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <sys/mman.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr const char* kMailSpool = "/tmp/vexsurveillance_sendmail";
constexpr unsigned kCallSeconds = 60; // far more than any call may wait for its turn

struct expectation {
    std::string service;
    std::string command;
    std::string request;
    answer reply;
};

// What the clients, which are processes, tell the test.
struct score {
    std::atomic<long> right = 0;
    std::atomic<long> spoilt = 0; // of the right ones
    std::atomic<long> wrong = 0;
    char first_wrong[8192] = {};
};

class shared_score {
public:
    shared_score()
        : memory_(::mmap(nullptr, sizeof(score), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        EXPECT_NE(memory_, MAP_FAILED);
        score_ = new (memory_) score;
    }
    shared_score(const shared_score&) = delete;
    shared_score& operator=(const shared_score&) = delete;
    ~shared_score() { ::munmap(memory_, sizeof(score)); }

    score* operator->() const { return score_; }

    // Counts one call. @return Whether its answer was the right one.
    bool count(const expectation& expected, const answer& got, unsigned code, bool spoilt) const {
        if (got == expected.reply && (code == KS_OK || code == KS_DISCONNECTED)) {
            ++score_->right;
            score_->spoilt += spoilt ? 1 : 0;
            return true;
        }
        if (score_->wrong++ == 0) {
            (void)snprintf(score_->first_wrong, sizeof score_->first_wrong, "%s %s\ngot %u, %s\nexpected %s",
                           expected.command.c_str(), expected.request.c_str(), code, shown(got).c_str(),
                           shown(expected.reply).c_str());
        }
        return false;
    }

private:
    void* memory_;
    score* score_;
};

// The daemon's own temporary files.
std::set<std::string> temporary_files() {
    std::set<std::string> names;
    for (const auto& each : fs::directory_iterator("/tmp")) {
        const std::string name = each.path().filename();
        if (name.starts_with("vexprod-") && each.is_regular_file()) {
            names.insert(name);
        }
    }
    return names;
}

class LoadTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr) << "runs in the simulated host only";
        commands_ = read_command_document(read_file(COMMANDS_DOCUMENT));
        (void)leave_out_unpreparable(commands_); // commands_doc_test tells which
        ASSERT_TRUE(daemon_.serves());
        for (const documented_command& command : commands_) {
            provide_all(command);
        }
        write_file("/var/lib/hostsim/no_records", "");
        for (const documented_command& command : commands_) {
            learn(command);
        }
        for (const char* service : {kMain, kMail}) {
            spoilt_.push_back({service, "no_such_command", "{}", std::nullopt});
            spoilt_.push_back({service, "", "{}", std::nullopt});
        }
    }

    void learn(const documented_command& command) {
        SCOPED_TRACE(command.service + " " + command.name);
        const answer example = example_reply(command);
        EXPECT_EQ(send(command, command.request), example);
        if (command.name != "sendmail" && command.name != "exec_cli") { // these two differ from call to call
            sound_.push_back({command.service, command.name, command.request, example});
        }
        std::vector<std::string> texts = {"{", "\x01\xff", "{\"a\":"};
        for (const documented_key& key : command.keys()) {
            if (key.required) {
                const auto spoilt = requests_without(command, key);
                texts.insert(texts.end(), spoilt.begin(), spoilt.end());
            }
        }
        for (const std::string& text : texts) {
            const answer got = send(command, text);
            EXPECT_TRUE(command.lines_of("Key").empty() ? got == example
                                                        : got != example && is_documented(command, got))
                << text << "\n"
                << shown(got);
            spoilt_.push_back({command.service, command.name, text, got});
        }
    }

    // A request that no other caller has at the moment, so that a reply which went to the wrong one shows.
    static expectation echo(const std::string& own) {
        const std::string reply = R"({"error_code":0,"handler":"exec_cli_handler","result":")" + own +
                                  R"(\n","service":"VexHubServer-vexprod"})" + "\n";
        return {kMain, "exec_cli", R"({"command":["/bin/echo",")" + own + "\"]}", reply};
    }
    static expectation mail(const std::string& own) {
        const std::string config = own + ".conf";
        const std::string content = own + ".txt";
        write_file(std::string(kMailSpool) + "/" + config, "mailhub=192.0.2.25\n");
        write_file(std::string(kMailSpool) + "/" + content, "To: admin@example.com\n\nText.\n");
        return {kMail, "sendmail",
                R"({"user":"","pwd":"","config_file":")" + config + R"(","content_file":")" + content + "\"}",
                "{\"result\":0}\n"};
    }

    template <class Random>
    [[nodiscard]] expectation sound_request(Random& random, const std::string& own) const {
        const size_t pick = random() % (sound_.size() + 2);
        return pick < sound_.size() ? sound_[pick] : pick == sound_.size() ? echo(own) : mail(own);
    }

    // What one client does until `end`.
    void call_until(steady_clock::time_point end, long client, const shared_score& total) const {
        std::mt19937 random(static_cast<unsigned>(client) + 1);
        for (long call = 0; steady_clock::now() < end; ++call) {
            const bool spoilt = random() % 10 == 0;
            const expectation expected =
                spoilt ? spoilt_[random() % spoilt_.size()]
                       : sound_request(random, "c" + std::to_string(client) + "-" + std::to_string(call));
            std::string reply;
            const unsigned code = call_service(expected.service.c_str(), expected.command.c_str(), expected.request,
                                               &reply, kCallSeconds);
            if (!total.count(expected, code == KS_OK ? answer(reply) : std::nullopt, code, spoilt)) {
                return;
            }
        }
    }

    daemon_process daemon_;
    std::vector<documented_command> commands_;
    std::vector<expectation> sound_;
    std::vector<expectation> spoilt_;
};

TEST_F(LoadTest, EveryCallerGetsItsOwnAnswerAndNothingStaysBehind) {
    const long clients = setting("VEXPROD_LOAD_CLIENTS", 64);
    const seconds duration(setting("VEXPROD_LOAD_SECONDS", 4));
    const auto files_before = temporary_files();
    const size_t descriptors_before = daemon_.settled("fd");
    const size_t threads_before = daemon_.settled("task");

    const shared_score total;
    {
        std::vector<side_process> callers;
        const auto end = steady_clock::now() + duration;
        for (long client = 0; client < clients; ++client) {
            callers.emplace_back([this, end, client, &total] { call_until(end, client, total); });
        }
        for (side_process& each : callers) {
            EXPECT_EQ(each.join(), 0);
        }
    }
    EXPECT_EQ(total->wrong, 0) << total->first_wrong;
    EXPECT_GT(total->right, clients);
    EXPECT_GT(total->spoilt, 0);

    EXPECT_EQ(daemon_.settled("fd"), descriptors_before);
    EXPECT_EQ(daemon_.settled("task"), threads_before);
    EXPECT_EQ(temporary_files(), files_before);
    EXPECT_TRUE(fs::is_empty(kMailSpool)) << "a mail that was sent leaves the spool";
    std::string reply;
    EXPECT_EQ(call_service(kMain, "test", "", &reply), 0U);
    EXPECT_EQ(daemon_.stop(), 0) << daemon_.standard_error();
    printf(
        "%ld clients, %ld s: %ld right answers, %ld of them to spoilt requests, %ld wrong; %zu descriptors, %zu threads\n",
        clients, static_cast<long>(duration.count()), total->right.load(), total->spoilt.load(), total->wrong.load(),
        descriptors_before, threads_before);
}

} // namespace
