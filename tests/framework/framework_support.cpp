#include "framework_support.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

// Process workers are forked from threads.
extern "C" const char* __tsan_default_options(); // NOLINT(clang-diagnostic-reserved-identifier): the sanitizer's name
extern "C" const char* __tsan_default_options() {
    return "die_after_fork=0";
}

namespace support {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

bool eventually(const std::function<bool()>& condition, milliseconds within) {
    const auto give_up_at = steady_clock::now() + within;
    while (!condition()) {
        if (steady_clock::now() > give_up_at) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

descriptor& descriptor::operator=(descriptor&& other) noexcept {
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

int descriptor::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void descriptor::reset(int fd) {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

temp_dir::temp_dir() {
    char pattern[] = "/tmp/ks-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    path_ = pattern;
}

temp_dir::~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void restore_stdin() {
    while (fcntl(STDIN_FILENO, F_GETFD) == -1) {
        (void)!open("/dev/null", O_RDWR);
    }
}

std::vector<int> open_descriptors() {
    std::vector<int> numbers;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        throw std::runtime_error("opendir");
    }
    while (const dirent* entry = readdir(dir)) {
        const int number = (int)strtol(entry->d_name, nullptr, 10); // 0 for "." and ".."
        if (entry->d_name[0] != '.' && number != dirfd(dir)) {
            numbers.push_back(number);
        }
    }
    closedir(dir);
    return numbers;
}

size_t open_sockets() {
    size_t count = 0;
    for (const int fd : open_descriptors()) {
        char target[32] = {};
        const ssize_t size = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof(target) - 1);
        count += size > 0 && std::string_view(target).substr(0, 7) == "socket:" ? 1 : 0;
    }
    return count;
}

size_t settled_descriptors() {
    size_t last = 0;
    int same = 0;
    (void)eventually([&] {
        const size_t now = open_descriptors().size();
        same = now == last ? same + 1 : 0;
        last = now;
        return same == 50;
    });
    return last;
}

size_t thread_count() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

int64_t cpu_ms() {
    rusage used = {};
    getrusage(RUSAGE_SELF, &used);
    return (used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1000 +
           (used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1000;
}

std::string text_of(ks_io* io) {
    std::string text(std::min<size_t>(ks_io_size(io), 1U << 16), '\0');
    const ssize_t got = pread(io->memfd, text.data(), text.size(), 0);
    text.resize(got < 0 ? 0 : (size_t)got);
    return text;
}

void answer(ks_io* io, std::string_view text) {
    if (ks_io_alive(io) != 0) {
        ks_io_realloc(io, 0);
        (void)ks_io_write(io, text.data(), text.size());
        ks_reply(io);
    }
    ks_io_free(io);
}

int echo(const char* command, ks_io* io, int fd) {
    std::string extra = "none";
    if (fd >= 0) {
        char bytes[64];
        const ssize_t got = pread(fd, bytes, sizeof(bytes), 0);
        extra.assign(bytes, got < 0 ? 0 : (size_t)got);
        ::close(fd);
    }
    answer(io, std::string(command) + "|" + text_of(io) + "|" + extra);
    return 0;
}

descriptor memory_file(std::string_view text) {
    descriptor file(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (file.get() < 0 || write(file.get(), text.data(), text.size()) != (ssize_t)text.size()) {
        throw std::runtime_error("memfd_create");
    }
    return file;
}

service::service(unsigned mode, size_t workers, ks_exec exec, const std::function<void(ks_handle*)>& prepare)
    : name_("@" + dir_.file("s.sock")) {
    handle_ = ks_create(name_.c_str(), mode, workers, exec);
    if (prepare) {
        prepare(handle_);
    }
    start(mode);
}

service::service(const std::string& name, unsigned mode, size_t workers, ks_exec exec)
    : name_(name), handle_(ks_create(name.c_str(), mode, workers, exec)) {
    start(mode);
}

void service::start(unsigned mode) {
    if ((mode & 1U) != 0) {
        ks_start(handle_);
        return;
    }
    runner_ = std::thread([this] { ks_start(handle_); });
    // chmod() comes last.
    const bool up = eventually([this] {
        struct stat st = {};
        return stat(handle_->sockfile, &st) == 0 && (st.st_mode & 0777) == 0777;
    });
    if (!up) {
        throw std::runtime_error("service does not come up");
    }
}

void service::stop() {
    if (handle_ == nullptr) {
        return;
    }
    ks_stop(handle_);
    if (runner_.joinable()) {
        runner_.join();
    }
    ks_free(handle_);
    handle_ = nullptr;
    restore_stdin();
}

service::~service() {
    stop();
}

ks_worker entry_of(const ks_handle* handle, size_t index) {
    const descriptor memory(open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
    const ks_worker* table = __atomic_load_n(&handle->worker, __ATOMIC_ACQUIRE);
    ks_worker entry = {};
    if (pread(memory.get(), &entry, sizeof(entry), (off_t)&table[index]) != (ssize_t)sizeof(entry)) {
        throw std::runtime_error("/proc/self/mem");
    }
    return entry;
}

unsigned call(const char* name, const char* command, std::string_view text, std::string* ret_reply, int passfd) {
    void* reply = nullptr;
    size_t size = 0;
    const unsigned code =
        ks_ez_call(name, command, text.empty() ? nullptr : text.data(), text.size(), &reply, &size, 60, passfd);
    if (reply != nullptr) {
        ret_reply->assign(static_cast<const char*>(reply), size);
        free(reply);
    }
    return code;
}

record make_record(unsigned char type, unsigned char flags, std::string_view data) {
    record what = {};
    what[0] = type;
    what[1] = flags;
    memcpy(what.data() + 2, data.data(), data.size() < 257 ? data.size() : 257);
    return what;
}

raw_caller::raw_caller(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    connected_ = connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

bool raw_caller::send_bytes(const void* bytes, size_t size) const {
    return ::send(fd_.get(), bytes, size, MSG_NOSIGNAL) == (ssize_t)size;
}

namespace {

bool send_fds_over(int socket, const std::vector<int>& fds, size_t bytes) {
    std::vector<char> text(bytes, 'x');
    iovec data = {text.data(), text.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 64)] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (!fds.empty()) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fds.size());
    }
    return sendmsg(socket, &message, MSG_NOSIGNAL) == (ssize_t)bytes;
}

} // namespace

bool raw_caller::send_fds(const std::vector<int>& fds, size_t bytes) const {
    return send_fds_over(fd_.get(), fds, bytes);
}

std::optional<record> raw_caller::receive(milliseconds within) const {
    record what = {};
    size_t got = 0;
    const auto give_up_at = steady_clock::now() + within;
    while (got < what.size()) {
        const auto left = std::chrono::duration_cast<milliseconds>(give_up_at - steady_clock::now()).count();
        pollfd watched = {fd_.get(), POLLIN, 0};
        if (left <= 0 || poll(&watched, 1, (int)left) <= 0) {
            return std::nullopt;
        }
        const ssize_t count = recv(fd_.get(), what.data() + got, what.size() - got, 0);
        if (count <= 0) {
            return std::nullopt;
        }
        got += (size_t)count;
    }
    return what;
}

bool raw_caller::hung_up(milliseconds within) const {
    pollfd watched = {fd_.get(), POLLIN, 0};
    char byte = 0;
    return poll(&watched, 1, (int)within.count()) == 1 && recv(fd_.get(), &byte, 1, 0) <= 0;
}

bool raw_caller::invited() const {
    const auto what = receive();
    return what && *what == make_record(7);
}

bool raw_caller::request(std::string_view command, int memfd) const {
    if (!send(make_record(8, 0, command)) || !send_fds({memfd})) {
        return false;
    }
    const auto what = receive();
    return what && *what == make_record(9);
}

void raw_caller::shut_write() const {
    (void)shutdown(fd_.get(), SHUT_WR);
}

gate::gate() {
    sem_init(&both_->arrived, 1, 0);
    sem_init(&both_->go, 1, 0);
}

gate::~gate() {
    sem_destroy(&both_->arrived);
    sem_destroy(&both_->go);
}

void gate::pass() const {
    sem_post(&both_->arrived);
    while (sem_wait(&both_->go) != 0) {
    }
}

bool gate::await(size_t n) const {
    timespec give_up_at = {};
    clock_gettime(CLOCK_REALTIME, &give_up_at);
    give_up_at.tv_sec += 60;
    for (size_t i = 0; i < n; ++i) {
        while (sem_timedwait(&both_->arrived, &give_up_at) != 0) {
            if (errno != EINTR) {
                return false;
            }
        }
    }
    return true;
}

void gate::open(size_t n) const {
    for (size_t i = 0; i < n; ++i) {
        sem_post(&both_->go);
    }
}

void end_within(std::chrono::seconds limit) {
    std::thread([limit] {
        std::this_thread::sleep_for(limit);
        _exit(99);
    }).detach();
}

namespace {

// Installs the filter; returns what seccomp(2) does. Without the thread synchronisation flag it holds for this thread
// and for what it starts.
long install(std::vector<sock_filter> filter, unsigned flags) {
    sock_fprog program = {(unsigned short)filter.size(), filter.data()};
    long result = -1;
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) {
        result = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program);
    }
    if (result < 0) {
        throw std::runtime_error("seccomp");
    }
    return result;
}

std::vector<sock_filter> filter_of(const std::vector<long>& numbers, unsigned action) {
    std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long number : numbers) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)number, 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, action));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    return filter;
}

} // namespace

void fail_system_call(long number, int error, long argument) {
    const auto code = (unsigned)number;
    const unsigned low_word = offsetof(seccomp_data, args) + sizeof(uint64_t);
    std::vector<sock_filter> filter = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, code, 0, (unsigned char)(argument < 0 ? 1 : 3)),
    };
    if (argument >= 0) {
        filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, low_word));
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)argument, 0, 1));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ((unsigned)error & SECCOMP_RET_DATA)));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    (void)install(std::move(filter), SECCOMP_FILTER_FLAG_TSYNC);
}

void limit_descriptors_in_flight() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 64;
    setrlimit(RLIMIT_NOFILE, &limit);
    // Root is not limited. This drops what the process may do as root, not who it is.
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capset, &header, none) != 0) {
        throw std::runtime_error("capset");
    }
}

no_descriptor_passed::no_descriptor_passed() {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        throw std::runtime_error("socketpair");
    }
    from_ = descriptor(ends[0]);
    to_ = descriptor(ends[1]);
    // More than the limit, all of its own: those of other processes of the user count, but come and go.
    rlimit few = {};
    getrlimit(RLIMIT_NOFILE, &few);
    const rlimit more = {few.rlim_cur * 8, few.rlim_max};
    setrlimit(RLIMIT_NOFILE, &more);
    const std::vector<int> some(few.rlim_cur, STDERR_FILENO);
    const bool sent = send_fds_over(from_.get(), some, 1) && send_fds_over(from_.get(), some, 1);
    setrlimit(RLIMIT_NOFILE, &few);
    if (!sent) {
        throw std::runtime_error("descriptors in flight");
    }
}

supervised_calls::supervised_calls(const std::vector<long>& numbers)
    : listener_((int)install(filter_of(numbers, SECCOMP_RET_USER_NOTIF), SECCOMP_FILTER_FLAG_NEW_LISTENER)) {
    std::thread([this] { supervise(); }).detach();
}

void supervised_calls::fail_next(long number, int fd, int error) {
    number_ = number;
    fd_ = fd;
    error_ = error;
}

// Makes none of the supervised calls itself.
void supervised_calls::supervise() {
    for (;;) {
        seccomp_notif call = {};
        if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) {
            continue; // the caller was interrupted meanwhile
        }
        if (const gate* where = where_.exchange(nullptr)) {
            where->pass();
        }
        seccomp_notif_resp answer = {};
        answer.id = call.id;
        answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        if (error_ != 0 && call.data.nr == number_ && (int)call.data.args[0] == fd_) {
            answer.flags = 0;
            answer.error = -error_;
            error_ = 0;
        }
        (void)ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &answer);
    }
}

void trap_system_call(long number) {
    (void)install(filter_of({number}, SECCOMP_RET_TRAP), 0);
}

bool is_asleep(pid_t tid) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t name_end = text.rfind(')');
    return name_end != std::string::npos && text.compare(name_end, 3, ") S") == 0;
}

} // namespace support
