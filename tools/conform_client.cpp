// Plays a service, well-behaved and not, to a client program, and looks at what the program sends and makes of it.
#include "conform.h"
#include "ksctl.h"
#include "kservice.h"
#include "service_socket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace ksctl::conform {

namespace {

constexpr uint8_t kUnknownType = 200;
constexpr std::string_view kReply("a reply\0with a NUL and without a newline", 40);

// A client program that runs, and its standard output. Killed at scope end if it has not ended.
class program {
public:
    explicit program(const std::vector<std::string>& words) {
        std::array<int, 2> ends{-1, -1};
        (void)!pipe2(ends.data(), O_CLOEXEC);
        output_ = unique_fd(ends[0]);
        const unique_fd writer(ends[1]);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, writer.get(), STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawnattr_t attributes; // ksctl ignores signals, which it would inherit
        posix_spawnattr_init(&attributes);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (const std::string& word : words) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
        argv.push_back(nullptr);
        error_ = posix_spawnp(&pid_, argv[0], &actions, &attributes, argv.data(), environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~program() {
        if (error_ == 0 && pid_ > 0) {
            (void)kill(pid_, SIGKILL);
            (void)waitpid(pid_, nullptr, 0);
        }
    }
    program(const program&) = delete;
    program& operator=(const program&) = delete;

    [[nodiscard]] int error() const { return error_; }
    [[nodiscard]] int output() const { return output_.get(); }

    // Reads its output to the end and collects it. Nothing = it does not end.
    std::optional<int> end(std::string* output) {
        std::array<char, 65536> chunk{};
        for (;;) {
            pollfd watched = {output_.get(), POLLIN, 0};
            if (TEMP_FAILURE_RETRY(poll(&watched, 1, static_cast<int>(patience.count()))) <= 0) {
                return std::nullopt;
            }
            const ssize_t count = read(output_.get(), chunk.data(), chunk.size());
            if (count <= 0) {
                break;
            }
            output->append(chunk.data(), static_cast<size_t>(count));
        }
        const unique_fd process(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0))); // it may go on without its output
        pollfd watched = {process.get(), POLLIN, 0};
        if (process.ok() && TEMP_FAILURE_RETRY(poll(&watched, 1, static_cast<int>(patience.count()))) <= 0) {
            return std::nullopt;
        }
        int status{};
        (void)waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int error_ = 0;
    unique_fd output_;
};

// A listening socket, removed at scope end.
class listener {
public:
    explicit listener(std::string path)
        : path_(std::move(path)), socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        const sockaddr_un address = socket_address(path_);
        made_ = bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        listens_ = made_ && listen(socket_.get(), 8) == 0;
    }
    ~listener() {
        if (made_) {
            (void)unlink(path_.c_str());
        }
    }
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;

    [[nodiscard]] bool ok() const { return listens_; }

    // The program's connection. Nothing = it ends, or waits, without one.
    unique_fd accept_from(const program& client) const {
        std::array<pollfd, 2> watched = {{{socket_.get(), POLLIN, 0}, {client.output(), 0, 0}}};
        (void)TEMP_FAILURE_RETRY(poll(watched.data(), watched.size(), static_cast<int>(patience.count())));
        return unique_fd(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

private:
    std::string path_;
    unique_fd socket_;
    bool made_ = false;
    bool listens_ = false;
};

// A request as it was received.
struct request_seen {
    heard directive_seen;
    heard file;
    heard extra; // only if the flags announce one

    [[nodiscard]] uint8_t flags() const {
        return directive_seen.bytes.size() > 1 ? static_cast<uint8_t>(directive_seen.bytes[1]) : uint8_t{0};
    }
    [[nodiscard]] int fd() const { return file.descriptors.empty() ? -1 : file.descriptors.front().get(); }
};

request_seen hear_request(int connection) {
    request_seen seen;
    seen.directive_seen = hear(connection, sizeof(directive));
    if (!wrong_directive(seen.directive_seen, KS_DIRECTIVE_REQUEST).empty()) {
        return seen; // nothing that follows could be told apart
    }
    seen.file = hear(connection, 16);
    if ((seen.flags() & KS_DIRECTIVE_HAS_FD) != 0) {
        seen.extra = hear(connection, 16);
    }
    return seen;
}

// Writes the reply as a service does, and says so.
void reply(int connection, const request_seen& seen, std::string_view text) {
    (void)!ftruncate(seen.fd(), 0);
    (void)lseek(seen.fd(), 0, SEEK_SET);
    (void)!write(seen.fd(), text.data(), text.size());
    send_bytes(connection, make_directive(KS_DIRECTIVE_REPLY));
    (void)shutdown(connection, SHUT_RDWR);
}

class client_under_test {
public:
    client_under_test(std::vector<std::string> words, std::string folder)
        : words_(std::move(words)), folder_(std::move(folder)) {}

    struct result {
        std::string trouble; // empty = it connected and came to an end
        int status = -1;
        std::string output;
    };

    // Runs it against a service that does `talk` with its connection.
    template <class Talk>
    result run(const std::string& command, const std::string& request, Talk talk) const {
        return run_at("@" + folder_ + "/s", command, request, talk);
    }
    template <class Talk>
    result run_at(const std::string& service, const std::string& command, const std::string& request, Talk talk) const {
        const listener socket(service_path(service));
        if (!socket.ok()) {
            return {std::string("cannot listen: ") + strerror(errno), -1, ""};
        }
        std::vector<std::string> words = words_;
        words.insert(words.end(), {service, command, request});
        program client(words);
        if (client.error() != 0) {
            return {words_.front() + ": " + strerror(client.error()), -1, ""};
        }
        {
            const unique_fd connection = socket.accept_from(client);
            if (!connection.ok()) {
                return {"it did not connect", -1, ""};
            }
            talk(connection.get());
        }
        result ended;
        const std::optional<int> status = client.end(&ended.output);
        if (!status) {
            ended.trouble = "it did not end";
        }
        ended.status = status.value_or(-1);
        return ended;
    }
    // The trouble, unless it prints `expected` and ends with 0.
    template <class Talk>
    [[nodiscard]] std::string trouble_with_reply(std::string_view expected, Talk talk) const {
        const result ended = run("echo", "a request", talk);
        if (!ended.trouble.empty()) {
            return ended.trouble;
        }
        if (ended.status != 0) {
            return "it ended with status " + std::to_string(ended.status);
        }
        return ended.output == expected ? ""
                                        : "it printed " + std::to_string(ended.output.size()) +
                                              " bytes that are not the reply's " + std::to_string(expected.size());
    }
    // The trouble, unless it prints nothing and ends with another status than 0.
    template <class Talk>
    [[nodiscard]] std::string trouble_without_reply(Talk talk) const {
        const result ended = run("echo", "a request", talk);
        if (!ended.trouble.empty()) {
            return ended.trouble;
        }
        if (ended.status == 0) {
            return "it ended with status 0";
        }
        return ended.output.empty() ? "" : "it printed something";
    }

private:
    std::vector<std::string> words_;
    std::string folder_;
};

void accept_caller(int connection) {
    send_bytes(connection, make_directive(KS_DIRECTIVE_ACCEPTED));
}

std::string wrong_descriptor(const heard& message) {
    if (message.bytes.size() != 1) {
        return std::to_string(message.bytes.size()) + " data bytes";
    }
    if (message.bytes.front() != '\0') {
        return "the data byte is " + std::to_string(static_cast<unsigned char>(message.bytes.front()));
    }
    return message.descriptors.size() == 1 ? "" : std::to_string(message.descriptors.size()) + " descriptors";
}

std::string wrong_memory_file(int fd, const std::string& request) {
    if (fcntl(fd, F_GET_SEALS) < 0) {
        return "it is not a memory file";
    }
    if ((fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDWR) {
        return "it is not open for reading and writing";
    }
    return content_of(fd) == request ? "" : "it does not hold the request";
}

// A call that goes well, watched at each step.
void check_call(const client_under_test& client, report& checks) {
    const std::string request = "{\"a\": 1}";
    std::string early;
    std::string late;
    std::string touched;
    std::string file_trouble;
    request_seen seen;
    const auto ended = client.run("echo", request, [&](int connection) {
        early = hear(connection, 1, kListening).silent ? "" : "something came before 7";
        accept_caller(connection);
        seen = hear_request(connection);
        file_trouble = wrong_memory_file(seen.fd(), request);
        constexpr off_t kOurOffset = 3; // where nobody else would put it
        (void)lseek(seen.fd(), kOurOffset, SEEK_SET);
        late = hear(connection, 1, kListening).silent ? "" : "something came after the descriptors";
        if (lseek(seen.fd(), 0, SEEK_CUR) != kOurOffset || content_of(seen.fd()) != request) {
            touched = "its offset or content changed";
        }
        reply(connection, seen, kReply);
    });
    if (!ended.trouble.empty()) { // all that follows would say the same
        checks.add("accepted: send the request", ended.trouble);
        return;
    }
    checks.add("The caller sends nothing before 7", early);
    std::string trouble = wrong_directive(seen.directive_seen, KS_DIRECTIVE_REQUEST);
    checks.add("It is sent whole in one call, and received whole", trouble);
    if (trouble.empty() &&
        seen.directive_seen.bytes.substr(2) != make_directive(KS_DIRECTIVE_REQUEST, 0, "echo").substr(2)) {
        trouble = "the data is not the command and zeros";
    }
    checks.add("in a request: the command's name, at most 256 bytes, then zeros up to the end.", trouble);
    checks.add("bit 0 (value 1), in a request only: an extra descriptor follows. All other bits 0",
               seen.flags() <= KS_DIRECTIVE_HAS_FD ? "" : "the flags are " + std::to_string(seen.flags()));
    trouble = wrong_descriptor(seen.file);
    if (trouble.empty() && seen.flags() == KS_DIRECTIVE_HAS_FD) {
        trouble = wrong_descriptor(seen.extra);
    }
    checks.add("Each descriptor is a message of its own (`sendmsg`) of **one data byte**, which is sent as 0 and "
               "ignored, and one control message with **one descriptor**",
               trouble);
    checks.add("The memory file comes first, always; the extra descriptor second, if the request's flags announce one.",
               file_trouble);
    checks.add("After its descriptors it sends nothing more", late);
    checks.add("passes the descriptor and leaves the file alone until the reply or the end of the connection", touched);
    checks.add("reads the file from 0 to its size, which is the reply's, with `pread` or `mmap`",
               ended.status == 0 && ended.output == kReply ? "" : "it did not print the reply and end with 0");
}

void check_edges(const client_under_test& client, report& checks) {
    const std::string longest(sizeof(directive::data) - 1, 'c');
    std::string command_sent;
    (void)client.run(longest, "a request", [&](int connection) {
        accept_caller(connection);
        const request_seen seen = hear_request(connection);
        command_sent = seen.directive_seen.bytes;
        reply(connection, seen, kReply);
    });
    checks.add("256 bytes; longer ones arrive truncated",
               command_sent.size() == sizeof(directive) && command_sent.substr(2) == longest + '\0'
                   ? ""
                   : "a command of 256 bytes does not arrive whole");

    std::string file_trouble = "no request came";
    (void)client.run("echo", "", [&](int connection) {
        accept_caller(connection);
        const request_seen seen = hear_request(connection);
        file_trouble = wrong_memory_file(seen.fd(), "");
        reply(connection, seen, kReply);
    });
    checks.add("makes the file (`memfd_create`), even for an empty request, and writes the request's bytes",
               file_trouble);

    const auto reply_with = [](const std::string& text) {
        return [text](int connection) {
            accept_caller(connection);
            reply(connection, hear_request(connection), text);
        };
    };
    checks.add("A reply of size 0 is a reply.", client.trouble_with_reply("", reply_with("")));
    const std::string large(size_t{1} << 20, 'r');
    checks.add("There is no terminator and no length anywhere but the file's size.",
               client.trouble_with_reply(large, reply_with(large)));
    checks.add("A caller ignores types that it does not know and goes on waiting",
               client.trouble_with_reply(kReply, [](int connection) {
                   send_bytes(connection, make_directive(kUnknownType));
                   accept_caller(connection);
                   const request_seen seen = hear_request(connection);
                   send_bytes(connection, make_directive(kUnknownType));
                   reply(connection, seen, kReply);
               }));
}

void check_calls_without_a_reply(const client_under_test& client, report& checks) {
    const auto turn_away = [](uint8_t type) {
        return [type](int connection) { send_bytes(connection, make_directive(type)); };
    };
    std::string trouble = with("4", client.trouble_without_reply(turn_away(KS_DIRECTIVE_PAUSED)));
    if (trouble.empty()) {
        trouble = with("2", client.trouble_without_reply(turn_away(KS_DIRECTIVE_BUSY)));
    }
    checks.add("Instead of 7 a caller may receive 4 (the service is paused) or 2 (too many callers wait already)",
               trouble);
    checks.add("refused. Callers understand it; no service sends it today",
               client.trouble_without_reply(turn_away(KS_DIRECTIVE_REFUSED)));
    checks.add("Seen before 7 or before the request was sent whole, this means that nothing was done.",
               client.trouble_without_reply([](int) {}));
    checks.add(
        "The connection ends without 9 when the service does not know the command, or the command gives no reply",
        client.trouble_without_reply([](int connection) {
            accept_caller(connection);
            (void)hear_request(connection);
        }));
    checks.add("the library takes any other number of bytes for the end of the connection.",
               client.trouble_without_reply([](int connection) {
                   accept_caller(connection);
                   const request_seen seen = hear_request(connection);
                   send_bytes(connection, make_directive(KS_DIRECTIVE_REPLY).substr(0, sizeof(directive) - 1));
               }));
}

// A name whose path has a digit less than others.
std::string name_with_a_short_path() {
    const size_t usual = std::string("/var/run/ks/12345678.sock").size();
    for (int i = 0;; ++i) {
        std::string name = "conform-" + std::to_string(getpid()) + "-" + std::to_string(i);
        if (service_path(name).size() < usual) {
            return name;
        }
    }
}

void check_path(const client_under_test& client, report& checks) {
    constexpr const char* kRule = "as a big-endian number in upper-case hexadecimal **without leading zeros**";
    const std::string name = name_with_a_short_path();
    const std::filesystem::path folder = std::filesystem::path(service_path(name)).parent_path();
    std::error_code ignored; // what is missing shows in what follows
    std::filesystem::create_directories(folder, ignored);
    if (access(folder.c_str(), W_OK | X_OK) != 0) {
        checks.skip(kRule, folder.string() + ": " + strerror(errno));
        return;
    }
    checks.add(kRule, client.run_at(name, "echo", "", [](int connection) { accept_caller(connection); }).trouble);
}

} // namespace

int check_client(const std::vector<std::string>& program) {
    std::string folder = "/tmp/conform-XXXXXX"; // $TMPDIR may be too long for a service's name
    if (mkdtemp(folder.data()) == nullptr) {
        return fail(kFailure, "cannot make %s: %s", folder.c_str(), strerror(errno));
    }
    const client_under_test client(program, folder);
    report checks;
    check_path(client, checks);
    check_call(client, checks);
    check_edges(client, checks);
    check_calls_without_a_reply(client, checks);
    (void)rmdir(folder.c_str());
    return checks.end();
}

} // namespace ksctl::conform
