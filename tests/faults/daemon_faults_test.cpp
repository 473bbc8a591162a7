// The daemon where a call fails: its commands, and the relay of a record.
//
// A request of a command arrives here as the framework hands it to the daemon, and the reply is taken from where the
// framework's caller would find it. That leaves out the framework's own calls, which framework_faults_test.cpp has.
#include "command_table.h"
#include "dispatch.h"
#include "documented_calls.h"
#include "faults.h"
#include "host_records.h"
#include "kservice.h"
#include "lifecycle.h"
#include "log.h"
#include "queue_listener.h"
#include "relays.h"
#include "test_files.h"
#include "unique_fd.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <sys/inotify.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

// A request on its way through the daemon.
class request_in_hand {
public:
    void arrive(const documented_command& command) {
        ks_io* io = ks_io_create();
        (void)ks_io_write(io, command.request.data(), command.request.size());
        ks_io_sync(io);
        (void)snprintf(io->command, sizeof(io->command), "%s", command.name.c_str());
        int ends[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        io->sockfd = ends[0];
        io->cred.pid = getpid();
        caller_.reset(ends[1]);
        file_.reset(fcntl(io->memfd, F_DUPFD_CLOEXEC, 3));
        io_ = io;
    }
    void serve(const documented_command& command) {
        const auto handler = command.section == "mail" ? sendmail_service_handler : service_handler;
        (void)handler(command.name.c_str(), std::exchange(io_, nullptr), -1);
    }
    // The reply, or nothing when the connection ended without one.
    answer take() {
        directive said = {};
        const bool replied = recv(caller_.get(), &said, sizeof(said), MSG_DONTWAIT) == (ssize_t)sizeof(said) &&
                             said.type == KS_DIRECTIVE_REPLY;
        char text[16384];
        const ssize_t size = pread(file_.get(), text, sizeof(text), 0);
        caller_.reset();
        file_.reset();
        return replied && size >= 0 ? answer(std::string(text, (size_t)size)) : std::nullopt;
    }

private:
    ks_io* io_ = nullptr;
    unique_fd caller_;
    unique_fd file_;
};

// What handlers leave of their tools' output, some of it on purpose. @return How many files there were.
int remove_kept_files() {
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        if (entry.is_regular_file() && entry.path().filename().string().starts_with("vexprod-")) {
            count += fs::remove(entry.path()) ? 1 : 0;
        }
    }
    return count;
}

// The command's service and name, as one word.
std::string word_of(const std::string& section, const std::string& name) {
    return section + "_" + name;
}

// The example's reply with another value of `key`, if it has that key.
Json::Value example_with(const documented_command& command, const char* key, const Json::Value& value) {
    Json::Value reply = parsed(command.reply);
    if (reply.isMember(key)) {
        reply[key] = value;
    }
    return reply;
}

std::string kind_of(const documented_command& command, const answer& got) {
    if (!got) {
        return "no reply";
    }
    if (*got == example_reply(command) || *got == command.reply) {
        return faults::kDone;
    }
    if (is_documented(command, got)) {
        return "a documented failure";
    }
    if (got->empty()) {
        return "an empty reply";
    }
    const Json::Value reply = parsed(*got);
    for (const char* key : {"result_out", "device_list", command.name == "exec_cli" ? "result" : "result_out"}) {
        if (reply == example_with(command, key, "")) {
            return "no output";
        }
    }
    return reply == example_with(command, "cli_ret", -1) ? "output not removed" : *got;
}

std::vector<documented_command> all_commands() {
    std::vector<documented_command> commands = read_command_document(read_file(COMMANDS_DOCUMENT));
    (void)leave_out_unpreparable(commands);
    return commands;
}

class DaemonFaultsTest : public testing::TestWithParam<std::string> {};

TEST_P(DaemonFaultsTest, Command) {
    write_file("/var/lib/hostsim/no_records", "");
    std::optional<documented_command> found;
    for (const documented_command& each : all_commands()) {
        if (word_of(each.section, each.name) == GetParam()) {
            found = each;
        }
    }
    ASSERT_TRUE(found);
    const documented_command& command = *found;
    request_in_hand request;
    faults::run({
        GetParam(),
        [] { log_set_dir("/tmp/faults-log"); },
        [&] {
            provide_all(command);
            request.arrive(command);
        },
        [&] { request.serve(command); },
        [&]() -> std::string {
            const std::string kind = kind_of(command, request.take());
            return kind + (remove_kept_files() == 0 ? "" : ", kept");
        },
        nullptr,
        {{"no reply"},
         {"no reply, kept"},
         {"a documented failure"},
         {"a documented failure, kept", "unlink"},
         {"done, kept", "unlink"},
         {"output not removed, kept", "unlink"},
         {"an empty reply", "write"}, // see ks_reply_json()
         {"no output", "vfork"},      // KEPT: a success
         {"no output", "open"},       // an output that cannot be read is taken for none, see temp_file.h
         {"no output", "fstat"},
         {"no output", "read"},
         {"no output", "mkostemp"}, // exec_cli does not look at what became of the program
         {"no output", "dup2"},
         {"no output", "execve"}},
    });
}

std::vector<std::string> words() {
    // One of each kind: plain, a tool's status, its output, through a pipe, a library, a mail.
    const std::set<std::string> few = {"main_test",        "main_exec_cli",      "main_system_call_log_tool",
                                       "main_get_sess_id", "main_get_all_users", "main_get_vpd_channel",
                                       "mail_sendmail"};
    std::vector<std::string> chosen;
    for (const auto& [section, table] : {std::pair("main", main_commands()), std::pair("mail", mail_commands())}) {
        for (const command_entry& each : table) {
            const std::string word = word_of(section, each.command);
            if (getenv("FAULTS_POINTS") != nullptr || few.contains(word)) {
                chosen.push_back(word);
            }
        }
    }
    return chosen;
}

std::atomic<int> notified = 0;

int note(const char* /*command*/, ks_io* io, int /*fd*/) {
    ++notified;
    ks_io_realloc(io, 0);
    ks_reply(io);
    ks_io_free(io);
    return 0;
}

std::atomic<int> relayed = 0;

void relay(void* record) {
    struct at_end {
        ~at_end() { ++relayed; }
    } const counted;
    eventlog_handler(record);
}

// How many services' sockets have been made since it was last asked.
int published(int watch) {
    char events[4096];
    const ssize_t size = read(watch, events, sizeof(events));
    int count = 0;
    for (ssize_t at = 0; at < size; ++count) {
        inotify_event event = {};
        memcpy(&event, events + at, sizeof(event));
        at += (ssize_t)(sizeof(event) + event.len);
    }
    return count;
}

// What became of a daemon that has ended: what it was, and what it has left on the host, which is removed.
std::string life_of(const siginfo_t& end, int services) {
    int sockets = 0;
    for (const auto& each : fs::directory_iterator("/var/run/ks")) {
        sockets += fs::remove(each.path()) ? 1 : 0;
    }
    int queues = 0;
    msglen_t records = 0;
    for (const int key : {kNotifyQueueKey, kEventLogQueueKey}) {
        msqid_ds left = {};
        queues += msgctl(msgget(key, 0), IPC_STAT, &left) == 0 ? 1 : 0;
        records += left.msg_qnum;
        (void)msgctl(msgget(key, 0), IPC_RMID, nullptr);
    }
    if (end.si_code == CLD_KILLED && (end.si_status == SIGKILL || end.si_status == SIGABRT)) {
        const bool memory = read_file("/proc/self/fd/2").find("instance of 'std::bad_alloc'") != std::string::npos;
        return memory ? "out of memory" : faults::kAborted;
    }
    if (end.si_code == CLD_EXITED && end.si_status == 255) {
        return "refused";
    }
    if (end.si_code != CLD_EXITED || end.si_status != 0) {
        return "ended with " + std::to_string(end.si_status);
    }
    // The mail service's socket stays.
    return services != 2  ? "a service missing"
           : records != 0 ? "a record left"
           : queues != 0  ? "a queue left"
           : sockets != 1 ? "a socket left"
                          : faults::kDone;
}

TEST(RelayFaultsTest, Record) {
    const host_record record =
        host_record::event(1700000000, "a user whose name takes memory", "a text that does, too");
    ks_handle* service = nullptr;
    std::optional<T_MSGQ_service> listener;
    int status = 0;
    int expected = 0;
    faults::run({
        "relay",
        [&] {
            log_set_dir("/tmp/faults-log");
            (void)mkdir("/var/run/ks", 0755);
            service = ks_create("VexHubServer_notify-vexprod", KS_STANDALONE | KS_PTHREAD_MODE, 1, note);
            ks_start(service);
            listener.emplace(kEventLogQueueKey, relay, kEventLogBodySize);
            (void)listener->server_start();
        },
        [&] {
            notified = 0;
            expected = relayed + 1;
        },
        [&] {
            status = T_MSGQ_service::send_msg(kEventLogQueueKey, record.data(), record.body_size());
            while (status == 0 && relayed < expected) {
                usleep(100);
            }
        },
        [&]() -> std::string {
            return status != 0 ? "not sent: " + std::to_string(status) : notified == 1 ? faults::kDone : "dropped";
        },
        [&] {
            (void)listener->server_stop();
            ks_free(service);
        },
        {{"dropped"}, {"not sent: 100", "msgget"}, {"not sent: 102", "msgsnd"}},
    });
}

// The daemon from its first line to its last, by the start-stop run: a stop by a signal calls nothing else that can
// fail.
TEST(LifeFaultsTest, StartAndStop) {
    constexpr const char* kSockets = "/var/run/ks";
    int watch = -1;
    siginfo_t end = {};
    faults::run({
        "life",
        [&] {
            (void)mkdir(kSockets, 0755);
            watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
            ASSERT_NE(inotify_add_watch(watch, kSockets, IN_CREATE), -1);
        },
        nullptr,
        [&] {
            end = faults::run_in_child([] {
                char program[] = "vexprod";
                char option[] = "-t";
                char* arguments[] = {program, option, nullptr};
                exit(run_daemon(2, arguments));
            });
        },
        [&] { return life_of(end, published(watch)); },
        [&] { close(watch); },
        {{"refused"}, // no install path
         {"out of memory", "malloc"},
         {"a service missing", "pthread_create"},
         {"a service missing", "calloc"}, // a thread's own data
         {"a queue left", "msgctl"},
         {"a socket left", "unlink"},
         {"a socket left", "epoll_create"}, // a worker that cannot listen to its producer ends the service
         {"a socket left", "epoll_ctl"}},
    });
}

INSTANTIATE_TEST_SUITE_P(Commands, DaemonFaultsTest, testing::ValuesIn(words()),
                         [](const auto& each) { return each.param; });

} // namespace
