// ksctl doctor: what of the daemon and around it is not as it should be, and what to do about it.
#include "daemon_files.h"
#include "exchange.h"
#include "host_config.h"
#include "ksctl.h"
#include "service_socket.h"
#include "unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace ksctl {

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr const char* kRestart = "start vexprod; a start that ends at once is explained in vexprod(8)";
constexpr int kNotifyQueue = 65521;
constexpr int kEventQueue = 65522;
constexpr size_t kFewDescriptors = 64;
constexpr unsigned long kLittleSpaceBytes = 1024UL * 1024;

// Prints each finding as it is made.
class report {
public:
    void good(const std::string& subject, const std::string& text) { line("ok", subject, text); }
    /// Worth knowing, and nothing to be mended here.
    void note(const std::string& subject, const std::string& text) { line("note", subject, text); }
    void bad(const std::string& subject, const std::string& text, const std::string& remedy) {
        line("BAD", subject, text);
        written_ = written_ && print("      remedy: " + remedy + '\n');
        well_ = false;
    }
    [[nodiscard]] int status() const { return !written_ ? kFailure : well_ ? kSuccess : kNotWell; }

private:
    void line(const char* kind, const std::string& subject, const std::string& text) {
        std::string begin = kind;
        begin.resize(6, ' ');
        written_ = written_ && print(begin + subject + ": " + text + '\n');
    }
    bool well_ = true;
    bool written_ = true;
};

std::string octal(mode_t mode) {
    std::array<char, 16> text{};
    (void)snprintf(text.data(), text.size(), "%04o", mode & 07777U);
    return text.data();
}

std::string user(uid_t uid) {
    return uid == 0 ? "root" : "user " + std::to_string(uid);
}

std::string time_text(time_t when) {
    std::array<char, 64> text{};
    tm local = {};
    (void)localtime_r(&when, &local);
    (void)strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    return text.data();
}

// "process 12 (cron)", or that it has ended.
std::string process(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    const bool lives = static_cast<bool>(std::getline(file, name));
    return "process " + std::to_string(pid) + (lives ? " (" + name + ")" : ", which has ended");
}

// Who listens on the socket, as the kernel has noted. @return 0 when that cannot be learnt.
pid_t listener_of(const std::string& path) {
    const unique_fd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = socket_address(path);
    ucred who = {};
    socklen_t size = sizeof(who);
    const bool known = connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                       getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &who, &size) == 0;
    return known ? who.pid : 0;
}

// @return The process that serves it, or 0.
pid_t look_at_service(report& findings, const known_service& service) {
    const std::string subject = std::string(service.alias) + " service";
    const std::string path = service_path(service.name);
    struct stat found = {};
    if (lstat(path.c_str(), &found) == 0 && !S_ISSOCK(found.st_mode)) {
        findings.bad(subject, path + " is not a socket", "remove it, and start vexprod again");
        return 0;
    }
    const presence state = probe(path);
    const int error = errno;
    if (state == presence::full) { // a call would wait as long as it lasts
        findings.bad(subject, path + ": too many connections wait to be accepted",
                     "see whether vexprod is stopped (ps: state T; kill -CONT lets it go on) or overloaded");
        return 0;
    }
    if (state == presence::down) {
        findings.bad(subject, path + ": " + why_absent(service.name, error),
                     error == EACCES ? "run ksctl as root, or as a user who may enter that folder" : kRestart);
        return 0;
    }
    const auto begin = steady_clock::now();
    const outcome ended = exchange(service.name, "test", make_request(""), kShortestTimeoutS, -1);
    const std::chrono::duration<double, std::milli> took = steady_clock::now() - begin;
    if (ended.status != kSuccess) {
        findings.bad(
            subject, ended.error,
            "see whether vexprod is stopped (ps: state T; kill -CONT lets it go on) and what its requests under "
            "way wait for (its children, its log)");
        return listener_of(path);
    }
    std::array<char, 32> time{};
    (void)snprintf(time.data(), time.size(), "%.3f", took.count());
    findings.good(subject, std::string(service.name) + " answers in " + time.data() + " ms at " + path);
    return listener_of(path);
}

// The modes from the root down to the sockets.
void look_at_ways(report& findings) {
    const std::string subject = "who may call";
    std::error_code error;
    const fs::path directory = fs::canonical(kSocketDirectory, error);
    if (error) {
        findings.bad(subject, std::string(kSocketDirectory) + ": " + error.message(), kRestart);
        return;
    }
    fs::path folder;
    std::string closed;
    for (const fs::path& part : directory) {
        folder /= part;
        struct stat found = {};
        if (stat(folder.c_str(), &found) != 0) {
            continue;
        }
        if ((found.st_mode & S_IWOTH) != 0 && (found.st_mode & S_ISVTX) == 0) {
            findings.bad(subject,
                         folder.string() + " has mode " + octal(found.st_mode) +
                             ": anybody may put a socket of his own in a service's place",
                         "chmod o-w " + folder.string());
            return;
        }
        if ((found.st_mode & S_IXOTH) == 0 && closed.empty()) {
            closed = folder.string() + " has mode " + octal(found.st_mode) + ": only " + user(found.st_uid) +
                     " and its group get in";
        }
    }
    for (const known_service& service : kKnownServices) {
        struct stat found = {};
        const std::string path = service_path(service.name);
        if (closed.empty() && stat(path.c_str(), &found) == 0 && (found.st_mode & S_IWOTH) == 0) {
            closed = path + " has mode " + octal(found.st_mode) + ": only " + user(found.st_uid) + " and its group";
        }
    }
    if (closed.empty()) {
        findings.good(subject, "everybody, by the modes from / to " + directory.string());
    } else {
        findings.note(subject, closed);
    }
}

// True when a record is taken, or there is none, within a second.
bool is_being_emptied(int id, msqid_ds* ret_state) {
    constexpr std::chrono::milliseconds kInterval(20);
    const time_t received = ret_state->msg_rtime;
    const auto depth = ret_state->msg_qnum;
    for (const auto end = steady_clock::now() + std::chrono::seconds(1); steady_clock::now() < end;) {
        if (msgctl(id, IPC_STAT, ret_state) != 0 || ret_state->msg_qnum == 0 || ret_state->msg_qnum < depth ||
            ret_state->msg_rtime != received) {
            return true;
        }
        std::this_thread::sleep_for(kInterval);
    }
    return false;
}

void look_at_queue(report& findings, int key, const char* name) {
    const std::string subject = std::string(name) + " queue " + std::to_string(key);
    const int id = msgget(key, 0);
    msqid_ds state = {};
    if (id < 0 || msgctl(id, IPC_STAT, &state) != 0) {
        findings.bad(subject, errno == ENOENT ? "not there" : strerror(errno), kRestart);
        return;
    }
    std::string text = state.msg_stime == 0
                           ? "nobody has posted yet"
                           : "last posted by " + process(state.msg_lspid) + " at " + time_text(state.msg_stime);
    text += (state.msg_perm.mode & S_IWOTH) != 0 ? ", everybody may post"
                                                 : ", only " + user(state.msg_perm.uid) + " may post";
    if (state.msg_qnum > 0 && !is_being_emptied(id, &state)) {
        findings.bad(subject, std::to_string(state.msg_qnum) + " records wait and none is taken; " + text,
                     "see vexprod-events(7): the notification service may not answer, or a record that is too long may "
                     "keep the others back; ipcrm -Q " +
                         std::to_string(key) + " drops them all, then restart vexprod");
        return;
    }
    findings.good(subject, (state.msg_qnum == 0 ? "empty" : std::to_string(state.msg_qnum) + " records, being taken") +
                               "; " + text);
}

void look_at_notification(report& findings) {
    const char* name = kKnownServices.back().name;
    if (probe(service_path(name)) == presence::down) {
        findings.note("notification service", std::string(name) + " is not there: events are dropped meanwhile");
    } else {
        findings.good("notification service", std::string(name) + " accepts connections");
    }
}

void look_at_registry(report& findings) {
    const std::string subject = "package registry";
    const std::string entry = std::string(kInstallPathField) + " of [" + kPackage + "] in " + kPackageRegistry;
    const std::string path = install_path();
    if (!path.empty()) {
        findings.good(subject, entry + " is " + path);
    } else if (access(kConfigReader, X_OK) != 0) {
        findings.bad(subject, std::string(kConfigReader) + ": " + strerror(errno),
                     "install the host's configuration reader; without it vexprod ends with status 255");
    } else if (access(kPackageRegistry, R_OK) != 0) {
        findings.bad(subject, std::string(kPackageRegistry) + ": " + strerror(errno),
                     "install the package anew, or make the file readable; without it vexprod ends with status 255");
    } else if (geteuid() != 0) { // the reader is the host's, and may want to be root
        findings.note(subject, "no " + entry + " for this user; run as root for what the daemon finds");
    } else {
        findings.bad(subject, "no " + entry,
                     "install the package anew; without the entry vexprod ends with status 255");
    }
}

// The line of the log that tells of the last crash, and whether a start stands behind it.
struct crash {
    std::string line;
    bool started_again = false;
};

crash last_crash(const std::string& log) {
    crash last;
    for (const std::string& path : {log + ".bak", log}) {
        std::error_code error;
        if (!fs::is_regular_file(path, error)) { // a pipe would be waited for
            continue;
        }
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            if (line.find("[vexprod_debug_backtrace_dump]") != std::string::npos &&
                line.find("]====") != std::string::npos) {
                last = {line.substr(0, line.find(" [vexprod_debug_backtrace_dump]")), false};
            } else if (line.find(" lyn-ks-vexprod start, ") != std::string::npos) {
                last.started_again = true;
            }
        }
    }
    return last;
}

void look_at_log(report& findings) {
    const std::string subject = "log";
    if (install_path().empty()) {
        findings.note(subject, "not known without the install path");
        return;
    }
    const std::string log = daemon_log_path();
    const std::string folder = fs::path(log).parent_path().string();
    struct statvfs space = {};
    if (statvfs(folder.c_str(), &space) != 0) {
        findings.bad(subject, folder + ": " + strerror(errno),
                     "make the folder, its owner root; vexprod serves without it, and logs nothing");
        return;
    }
    if ((space.f_flag & ST_RDONLY) != 0 || space.f_bavail * space.f_frsize < kLittleSpaceBytes) {
        findings.bad(subject, folder + ((space.f_flag & ST_RDONLY) != 0 ? " is read-only" : " has no space left"),
                     "mount it writable or make room; vexprod serves on, and logs nothing meanwhile");
        return;
    }
    const unique_fd file(open(log.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC));
    if (file.ok() || (errno == ENOENT && access(folder.c_str(), W_OK | X_OK) == 0)) {
        findings.good(subject, log + " is writable");
    } else if (geteuid() == 0) {
        findings.bad(subject, log + ": " + strerror(errno), "take away what stands there, or its attributes (lsattr)");
    } else {
        findings.note(subject, log + ": only root can tell whether the daemon may write there");
    }
    const crash last = last_crash(log);
    if (last.line.empty()) {
        findings.good("crashes", "no report in the log");
    } else if (last.started_again) {
        findings.note("crashes", "last report: " + last.line + "; started again since");
    } else {
        findings.bad("crashes", "last report: " + last.line + "; not started again since",
                     std::string("addr2line -Cfe vexprod ADDRESS names each frame of the report in the log; ") +
                         kRestart);
    }
}

void look_at_descriptors(report& findings, pid_t daemon) {
    const std::string subject = "descriptors";
    const std::string process_folder = "/proc/" + std::to_string(daemon);
    std::ifstream limits(process_folder + "/limits");
    size_t limit{};
    for (std::string line; std::getline(limits, line);) {
        (void)sscanf(line.c_str(), "Max open files %zu", &limit); // NOLINT(cert-err34-c): the kernel's own text
    }
    size_t open = 0;
    std::error_code error;
    for (fs::directory_iterator entry(process_folder + "/fd", error), end; !error && entry != end;
         entry.increment(error)) {
        ++open;
    }
    if (error || limit == 0) {
        findings.note(subject, "only root can count those of " + process(daemon));
        return;
    }
    const std::string text = std::to_string(open) + " of " + std::to_string(limit) + " in use by " + process(daemon);
    if (open + kFewDescriptors > limit) {
        findings.bad(subject, text,
                     "see which callers keep theirs (ls -l " + process_folder +
                         "/fd), and start vexprod with a higher limit (ulimit -Hn)");
    } else {
        findings.good(subject, text);
    }
}

int examine() {
    report findings;
    look_at_registry(findings);
    pid_t daemon = 0;
    for (const known_service& service : kKnownServices) {
        if (*service.alias != '\0') {
            daemon = std::max(daemon, look_at_service(findings, service));
        }
    }
    look_at_ways(findings);
    look_at_queue(findings, kNotifyQueue, "notification");
    look_at_queue(findings, kEventQueue, "event-log");
    look_at_notification(findings);
    look_at_log(findings);
    if (daemon > 0) {
        look_at_descriptors(findings, daemon);
    }
    return findings.status();
}

declaration declare() {
    return {{}, examine};
}

} // namespace

const command cmd_doctor = {
    "doctor", "Look whether all is well with the daemon",
    "Looks at the package registry, the services and who may reach them, the event queues, the log and its\n"
    "last crash, and the daemon's descriptors. Prints one line for each: ok, note (nothing to be mended\n"
    "here), or BAD with its remedy. Ends with status 0 when nothing is BAD, otherwise with 20.",
    "ksctl doctor", declare};

} // namespace ksctl
