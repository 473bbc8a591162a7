// Plays a caller, well-behaved and not, and looks at what the service does.
#include "conform.h"
#include "kservice.h"
#include "service_socket.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>

namespace ksctl::conform {

namespace {

constexpr std::chrono::milliseconds kServicesPatience{30000}; // the document's, after which the service hangs up

// One conversation. What goes wrong first is kept in `trouble`, and the steps after it do nothing.
class caller {
public:
    explicit caller(const std::string& path) : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval longest = {patience.count() / 1000, 0};
        (void)setsockopt(get(), SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof(longest)); // bounds the connect, too
        const sockaddr_un address = socket_address(path);
        if (connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            trouble_ = std::string("connect: ") + strerror(errno);
        }
    }

    [[nodiscard]] const std::string& trouble() const { return trouble_; }
    [[nodiscard]] int get() const { return socket_.get(); }

    // Waits for the directive `type`, which is returned.
    std::string expect(uint8_t type) {
        if (!trouble_.empty()) {
            return "";
        }
        heard message = hear(get(), sizeof(directive));
        trouble_ = wrong_directive(message, type);
        return std::move(message.bytes);
    }
    // The service has to end the connection without a 9.
    void expect_end(std::chrono::milliseconds longest = patience) {
        if (!trouble_.empty()) {
            return;
        }
        const heard message = hear(get(), sizeof(directive), longest);
        if (message.silent) {
            trouble_ = "the service did not hang up";
        } else if (!message.bytes.empty()) {
            trouble_ = wrong_directive(message, KS_DIRECTIVE_REPLY).empty() ? "the service replied all the same"
                                                                            : "the service said something else";
        }
    }
    void send_request(const std::string& command, uint8_t flags = 0) {
        say(make_directive(KS_DIRECTIVE_REQUEST, flags, command));
    }
    void say(const std::string& bytes) {
        if (trouble_.empty()) {
            send_bytes(get(), bytes);
        }
    }
    void pass(const std::vector<int>& descriptors) {
        if (trouble_.empty()) {
            send_descriptors(get(), descriptors);
        }
    }
    void require(bool condition, const std::string& otherwise) {
        if (trouble_.empty() && !condition) {
            trouble_ = otherwise;
        }
    }

private:
    unique_fd socket_;
    std::string trouble_;
};

struct service_under_test {
    std::string path;
    std::string command;
    std::string request;
};

caller invited(const service_under_test& service) {
    caller made(service.path);
    (void)made.expect(KS_DIRECTIVE_ACCEPTED);
    return made;
}

// What becomes of a request with the file `fd`: an answer, or an end. The trouble, if it is the other.
std::string file_trouble(const service_under_test& service, int fd, bool answered) {
    caller made = invited(service);
    made.send_request(service.command);
    made.pass({fd});
    if (answered) {
        (void)made.expect(KS_DIRECTIVE_REPLY);
    } else {
        made.expect_end();
    }
    return made.trouble();
}

// A pipe whose writing end goes to the service: `reader` comes to its end when nobody has that any more.
struct watched_pipe {
    unique_fd reader;
    unique_fd writer;

    watched_pipe() {
        std::array<int, 2> ends{-1, -1};
        (void)!pipe2(ends.data(), O_CLOEXEC);
        reader = unique_fd(ends[0]);
        writer = unique_fd(ends[1]);
    }
    // Closes our writing end. False = somebody else keeps one.
    bool closed_everywhere() {
        writer.reset();
        std::array<char, 4096> ignored{};
        ssize_t count{};
        do {
            pollfd watched = {reader.get(), POLLIN, 0};
            if (TEMP_FAILURE_RETRY(poll(&watched, 1, static_cast<int>(patience.count()))) <= 0) {
                return false;
            }
            count = read(reader.get(), ignored.data(), ignored.size());
        } while (count > 0);
        return true;
    }
};

void check_answer(const service_under_test& service, report& checks) {
    struct stat socket_file = {};
    const bool found = stat(service.path.c_str(), &socket_file) == 0 && S_ISSOCK(socket_file.st_mode);
    const auto mode = static_cast<unsigned>(socket_file.st_mode & 07777);
    std::array<char, 32> octal{};
    (void)snprintf(octal.data(), octal.size(), "mode %04o", mode);
    checks.add("A service listens on an `AF_UNIX` stream socket with mode 0777.",
               !found ? "no socket at " + service.path : (mode == 0777 ? "" : octal.data()));

    caller made(service.path);
    const std::string accepted = made.expect(KS_DIRECTIVE_ACCEPTED);
    checks.add("accepted: send the request", made.trouble());
    const unique_fd file = memory_file(service.request);
    made.send_request(service.command);
    made.pass({file.get()});
    const std::string reply = made.expect(KS_DIRECTIVE_REPLY);
    checks.add("the reply is complete", with(service.command.c_str(), made.trouble()));
    std::string trouble = made.trouble();
    if (trouble.empty()) {
        const heard after = hear(made.get(), 1);
        trouble = after.silent ? "the connection stays open" : after.bytes.empty() ? "" : "something came after 9";
    }
    checks.add("and shuts the connection down", trouble);
    checks.add("Every message with a number above is a *directive* of exactly 259 bytes.", made.trouble());
    made.require(accepted == make_directive(KS_DIRECTIVE_ACCEPTED) && reply == make_directive(KS_DIRECTIVE_REPLY),
                 "a directive of the service has flags or data");
    checks.add("bit 0 (value 1), in a request only: an extra descriptor follows. All other bits 0", made.trouble());

    struct stat answer = {};
    (void)fstat(file.get(), &answer);
    const off_t offset = lseek(file.get(), 0, SEEK_CUR);
    made.require(offset == answer.st_size,
                 "the offset is " + std::to_string(offset) + ", the size " + std::to_string(answer.st_size));
    checks.add("Hence step 2, and `pread` in step 6: at that time the offset is at the end of the reply.",
               made.trouble());
}

std::string memory_trouble(const service_under_test& service) {
    const watched_pipe no_file;
    std::string trouble = with("a pipe", file_trouble(service, no_file.writer.get(), false));
    const unique_fd device(open("/dev/zero", O_RDWR | O_CLOEXEC));
    if (trouble.empty()) {
        trouble = with("/dev/zero", file_trouble(service, device.get(), false));
    }
    struct statfs system = {};
    const unique_fd on_tmpfs(open("/dev/shm", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (trouble.empty() && on_tmpfs.ok() && fstatfs(on_tmpfs.get(), &system) == 0 && system.f_type == TMPFS_MAGIC) {
        (void)!write(on_tmpfs.get(), service.request.data(), service.request.size());
        trouble = with("a file in /dev/shm", file_trouble(service, on_tmpfs.get(), true));
    }
    return trouble;
}

std::string seal_trouble(const service_under_test& service) {
#ifndef F_SEAL_FUTURE_WRITE
    constexpr int F_SEAL_FUTURE_WRITE = 0x0010;
#endif
    constexpr std::array<std::pair<const char*, int>, 4> kSeals = {{{"F_SEAL_WRITE", F_SEAL_WRITE},
                                                                    {"F_SEAL_FUTURE_WRITE", F_SEAL_FUTURE_WRITE},
                                                                    {"F_SEAL_SHRINK", F_SEAL_SHRINK},
                                                                    {"F_SEAL_GROW", F_SEAL_GROW}}};
    for (const auto& [name, seal] : kSeals) {
        const unique_fd file = memory_file(service.request, MFD_ALLOW_SEALING);
        (void)fcntl(file.get(), F_ADD_SEALS, seal);
        if (std::string trouble = with(name, file_trouble(service, file.get(), false)); !trouble.empty()) {
            return trouble;
        }
    }
    return "";
}

void check_files(const service_under_test& service, report& checks) {
    checks.add(
        "The service refuses a file, by closing the connection, that is not a memory file: it must come from `memfd_create` or be on a `tmpfs` such as `/dev/shm`",
        memory_trouble(service));

    const unique_fd file = memory_file(service.request);
    const std::string number = "/proc/self/fd/" + std::to_string(file.get());
    const unique_fd read_only(open(number.c_str(), O_RDONLY | O_CLOEXEC));
    const unique_fd write_only(open(number.c_str(), O_WRONLY | O_CLOEXEC));
    std::string trouble = with("open for reading", file_trouble(service, read_only.get(), false));
    if (trouble.empty()) {
        trouble = with("open for writing", file_trouble(service, write_only.get(), false));
    }
    checks.add("The service refuses a file, by closing the connection, that is not open for reading and writing",
               trouble);

    checks.add(
        "The service refuses a file, by closing the connection, that is sealed against writing, future writing, shrinking or growing",
        seal_trouble(service));

    const unique_fd huge = memory_file("");
    (void)!ftruncate(huge.get(), off_t{1} << 61);
    checks.add("The service refuses a file, by closing the connection, that is not empty and cannot be mapped",
               with("2^61 bytes", file_trouble(service, huge.get(), false)));

    const unique_fd sealable = memory_file(service.request, MFD_ALLOW_SEALING);
    trouble = file_trouble(service, sealable.get(), true);
    if (trouble.empty() && (fcntl(sealable.get(), F_GET_SEALS) & F_SEAL_SEAL) == 0) {
        trouble = "it can still be sealed";
    }
    checks.add("Where a file can still be sealed (`MFD_ALLOW_SEALING`), the service seals it against further seals "
               "(`F_SEAL_SEAL`), so that this stays true.",
               trouble);
}

void check_descriptors(const service_under_test& service, report& checks) {
    const unique_fd file = memory_file(service.request);
    watched_pipe surplus;
    caller made = invited(service);
    made.send_request(service.command);
    made.pass({file.get(), surplus.writer.get()});
    (void)made.expect(KS_DIRECTIVE_REPLY);
    made.require(surplus.closed_everywhere(), "the second one stays open");
    checks.add("Of several descriptors in one message the service keeps the first and closes the others.",
               made.trouble());

    caller without = invited(service);
    without.send_request(service.command);
    without.pass({});
    without.expect_end();
    caller without_extra = invited(service);
    without_extra.send_request(service.command, KS_DIRECTIVE_HAS_FD);
    without_extra.pass({file.get()});
    without_extra.pass({});
    without_extra.expect_end();
    checks.add("A data byte without a descriptor ends the conversation.",
               without.trouble() + with("the extra one", without_extra.trouble()));

    const unique_fd request = memory_file(service.request);
    watched_pipe extra;
    caller with_extra = invited(service);
    with_extra.send_request(service.command, KS_DIRECTIVE_HAS_FD);
    with_extra.pass({request.get()});
    with_extra.pass({extra.writer.get()});
    (void)with_extra.expect(KS_DIRECTIVE_REPLY);
    with_extra.require(extra.closed_everywhere(), "it stays open");
    checks.add("The extra descriptor can be any open file; the service has it until the command is done.",
               with_extra.trouble());
}

void check_misuse(const service_under_test& service, report& checks, bool slow) {
    caller other_type = invited(service);
    other_type.say(make_directive(KS_DIRECTIVE_REPLY));
    other_type.expect_end();
    caller cut_off = invited(service);
    cut_off.say(make_directive(KS_DIRECTIVE_REQUEST).substr(0, sizeof(directive) - 1));
    cut_off.expect_end();
    checks.add(
        "The connection ends without 9 when the request violates the protocol: a directive of another type or length, a missing descriptor, a "
        "file that is refused",
        with("type 9", other_type.trouble()) + with("258 bytes", cut_off.trouble()));

    // The command is not the service's: an answer or an end, but no harm.
    const unique_fd file = memory_file(service.request);
    caller long_name = invited(service);
    long_name.send_request(std::string(sizeof(directive::data), 'x'));
    long_name.pass({file.get()});
    const heard answer = hear(long_name.get(), sizeof(directive));
    long_name.require(!answer.silent, "neither an answer nor an end");
    checks.add("256 bytes; longer ones arrive truncated", long_name.trouble());

    (void)caller(service.path); // each leaves at once
    (void)invited(service);
    {
        caller in_the_middle = invited(service);
        in_the_middle.send_request(service.command);
    }
    {
        caller before_9 = invited(service);
        const unique_fd left_behind = memory_file(service.request);
        before_9.send_request(service.command);
        before_9.pass({left_behind.get()});
    }
    const unique_fd request = memory_file(service.request);
    checks.add("A caller may hang up at any time.",
               with("the next caller", file_trouble(service, request.get(), true)));

    constexpr const char* kSilence = "From 7 until the request and all its descriptors are there";
    if (slow) {
        caller silent = invited(service);
        silent.expect_end(kServicesPatience + patience);
        checks.add(kSilence, silent.trouble());
    } else {
        checks.skip(kSilence, "takes 30 seconds: --slow");
    }
}

} // namespace

int check_service(const std::string& path, const std::string& command, const std::string& request, bool slow) {
    const service_under_test service = {path, command, request};
    report checks;
    check_answer(service, checks);
    check_files(service, checks);
    check_descriptors(service, checks);
    check_misuse(service, checks, slow);
    return checks.end();
}

} // namespace ksctl::conform
