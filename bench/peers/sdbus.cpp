// D-Bus through sd-bus.
//
// Forms:
//   direct         from peer to peer, the payload in the message
//   direct-memfd   from peer to peer, the payload in a memory file whose descriptor is in the message
//   dbus-daemon    through a message bus of its own, the payload in the message
//   dbus-broker    likewise
#include "exchange.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::array<std::string_view, 4> kSdBusForms = {"direct", "direct-memfd", "dbus-daemon", "dbus-broker"};
constexpr const char* kName = "bench.Exchange";
constexpr const char* kObject = "/bench/exchange";
constexpr const char* kJournal = "/run/systemd/journal/socket";
constexpr uint64_t kTimeoutUs = 60'000'000;
constexpr int kBusFd = 3; // where a started service finds its listening socket, see sd_listen_fds(3)
constexpr int kFirstTries = 500;

bool is_direct(const setting& how) {
    return how.form.starts_with("direct");
}
bool by_file(const setting& how) {
    return how.form == "direct-memfd";
}

std::string socket_path(const setting& how) {
    return how.folder + "/bus";
}

int listen_at(const std::string& path, int type) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int listener = socket(AF_UNIX, type, 0);
    must(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
             (type == SOCK_DGRAM || listen(listener, 128) == 0),
         "listen");
    return listener;
}

int reply_with(sd_bus_message* request, const void* payload, size_t size) {
    const reply_text text = answer(payload, size);
    return sd_bus_reply_method_return(request, "s", std::string(text.begin(), text.end()).c_str());
}

int on_bytes(sd_bus_message* request, void* /*userdata*/, sd_bus_error* /*error*/) {
    const void* payload = nullptr;
    size_t size = 0;
    must(sd_bus_message_read_array(request, 'y', &payload, &size) >= 0, "read the payload");
    return reply_with(request, payload, size);
}

int on_file(sd_bus_message* request, void* /*userdata*/, sd_bus_error* /*error*/) {
    int fd = -1;
    struct stat st = {};
    must(sd_bus_message_read(request, "h", &fd) > 0 && fstat(fd, &st) == 0, "take the memory file");
    const auto size = static_cast<size_t>(st.st_size);
    void* payload = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    must(payload != MAP_FAILED, "map the memory file");
    const int result = reply_with(request, payload, size);
    (void)munmap(payload, size);
    return result;
}

const std::array<sd_bus_vtable, 4> kMethods = {
    sd_bus_vtable SD_BUS_VTABLE_START(0),
    sd_bus_vtable SD_BUS_METHOD("CallBytes", "ay", "s", on_bytes, SD_BUS_VTABLE_UNPRIVILEGED),
    sd_bus_vtable SD_BUS_METHOD("CallFile", "h", "s", on_file, SD_BUS_VTABLE_UNPRIVILEGED),
    sd_bus_vtable SD_BUS_VTABLE_END};

// Serves one connection, to a bus or to a peer, to its end.
void serve_connection(sd_bus* bus) {
    must(sd_bus_add_object_vtable(bus, nullptr, kObject, kName, kMethods.data(), nullptr) >= 0, "add the methods");
    for (;;) {
        const int processed = sd_bus_process(bus, nullptr);
        if (processed < 0 || (processed == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)) {
            return;
        }
    }
}

void serve_peer(int caller_fd) {
    sd_bus* bus = nullptr;
    sd_id128_t id = {};
    must(sd_id128_randomize(&id) >= 0 && sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, caller_fd, caller_fd) >= 0 &&
             sd_bus_set_server(bus, 1, id) >= 0 && sd_bus_negotiate_fds(bus, 1) >= 0 && sd_bus_start(bus) >= 0,
         "talk to a peer");
    serve_connection(bus);
    sd_bus_close_unref(bus);
}

// @return Nothing when it cannot be had.
sd_bus* connect_to(const setting& how) {
    sd_bus* bus = nullptr;
    must(sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, ("unix:path=" + socket_path(how)).c_str()) >= 0 &&
             (is_direct(how) ? sd_bus_negotiate_fds(bus, 1) : sd_bus_set_bus_client(bus, 1)) >= 0,
         "prepare a connection");
    if (sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

std::string write_bus_configuration(const setting& how) {
    std::string path = how.folder + "/bus.conf";
    FILE* file = std::fopen(path.c_str(), "we");
    must(file != nullptr, "write the bus's configuration");
    (void)std::fprintf(file, "<busconfig><type>session</type><listen>unix:path=%s</listen><auth>EXTERNAL</auth>",
                       socket_path(how).c_str());
    (void)std::fputs("<policy context=\"default\"><allow send_destination=\"*\"/><allow receive_sender=\"*\"/>"
                     "<allow own=\"*\"/><allow user=\"*\"/></policy>",
                     file);
    for (const char* limit : {"max_incoming_bytes", "max_outgoing_bytes", "max_message_size"}) {
        (void)std::fprintf(file, "<limit name=\"%s\">1000000000</limit>", limit);
    }
    for (const char* limit : {"max_connections_per_user", "max_completed_connections"}) {
        (void)std::fprintf(file, "<limit name=\"%s\">100000</limit>", limit);
    }
    (void)std::fputs("</busconfig>\n", file);
    (void)std::fclose(file);
    return path;
}

// dbus-broker does not start without a journal to log to. Where there is none it gets a socket that only it sees, and
// that nobody reads.
void provide_journal() {
    if (access(kJournal, F_OK) == 0) {
        return;
    }
    must(unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             (mkdir("/run/systemd", 0755) == 0 || errno == EEXIST) &&
             mount("none", "/run/systemd", "tmpfs", 0, nullptr) == 0 && mkdir("/run/systemd/journal", 0755) == 0,
         "provide a journal for dbus-broker (as root)");
    (void)listen_at(kJournal, SOCK_DGRAM);
}

[[noreturn]] void become_bus(const setting& how, const std::string& configuration) {
    const std::string log = how.folder + "/bus.log";
    must(dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO) == STDERR_FILENO,
         "open the bus's log");
    const std::string configured = "--config-file=" + configuration;
    if (how.form == "dbus-daemon") {
        execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", configured.c_str(), nullptr);
    } else {
        const int listener = listen_at(socket_path(how), SOCK_STREAM);
        const int moved = fcntl(listener, F_DUPFD, kBusFd + 1);
        provide_journal();
        must(dup2(moved, kBusFd) == kBusFd, "hand the socket over");
        (void)close(moved);
        (void)setenv("LISTEN_FDS", "1", 1);
        (void)setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
        (void)setenv("XDG_RUNTIME_DIR", how.folder.c_str(), 1);
        (void)setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + socket_path(how)).c_str(), 1);
        execlp("dbus-broker-launch", "dbus-broker-launch", "--scope", "user", configured.c_str(), nullptr);
    }
    _exit(127);
}

// @return A connection to it that answers.
sd_bus* start_bus(const setting& how) {
    const std::string configuration = write_bus_configuration(how);
    const pid_t pid = fork();
    must(pid >= 0, "fork");
    if (pid == 0) {
        end_with_parent();
        become_bus(how, configuration);
    }
    for (int i = 0; i < kFirstTries; ++i) {
        const char* name = nullptr;
        sd_bus* bus = connect_to(how);
        if (bus != nullptr && sd_bus_get_unique_name(bus, &name) >= 0) {
            return bus;
        }
        sd_bus_close_unref(bus); // takes nothing, too
        must(waitpid(pid, nullptr, WNOHANG) == 0, "start the bus");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    must(false, "reach the bus");
    return nullptr;
}

class sdbus_connection : public connection {
public:
    explicit sdbus_connection(const setting& how)
        : bus_(connect_to(how)), destination_(is_direct(how) ? nullptr : kName), by_file_(by_file(how)) {
        must(bus_ != nullptr, "connect");
    }
    sdbus_connection(const sdbus_connection&) = delete;
    sdbus_connection& operator=(const sdbus_connection&) = delete;
    ~sdbus_connection() override { sd_bus_flush_close_unref(bus_); }

    void call(std::string_view payload, std::string* ret_reply) override {
        sd_bus_message* request = nullptr;
        sd_bus_message* reply = nullptr;
        must(sd_bus_message_new_method_call(bus_, &request, destination_, kObject, kName,
                                            by_file_ ? "CallFile" : "CallBytes") >= 0,
             "make a message");
        if (by_file_) {
            append_file(request, payload);
        } else {
            must(sd_bus_message_append_array(request, 'y', payload.data(), payload.size()) >= 0, "append the payload");
        }
        const char* text = nullptr;
        const int called = sd_bus_call(bus_, request, kTimeoutUs, nullptr, &reply);
        errno = -called; // for the line that must() prints
        must(called >= 0 && sd_bus_message_read(reply, "s", &text) >= 0, "call over the bus");
        *ret_reply = text;
        sd_bus_message_unref(reply);
        sd_bus_message_unref(request);
    }

private:
    static void append_file(sd_bus_message* request, std::string_view payload) {
        const int fd = memfd_create("sdbus", MFD_CLOEXEC);
        while (!payload.empty()) {
            const ssize_t count = write(fd, payload.data(), payload.size());
            must(count > 0, "write the payload");
            payload.remove_prefix(static_cast<size_t>(count));
        }
        must(sd_bus_message_append(request, "h", fd) >= 0, "append the memory file"); // which duplicates it
        (void)close(fd);
    }

    sd_bus* bus_;
    const char* destination_;
    bool by_file_;
};

} // namespace

const std::span<const std::string_view> kForms = kSdBusForms;

void serve(const setting& how, const std::function<void()>& ready) {
    if (!is_direct(how)) {
        sd_bus* bus = start_bus(how);
        must(sd_bus_request_name(bus, kName, 0) >= 0, "take a name on the bus");
        ready();
        serve_connection(bus);
        return;
    }
    const int listener = listen_at(socket_path(how), SOCK_STREAM);
    ready();
    for (;;) {
        std::thread(serve_peer, accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)).detach();
    }
}

std::unique_ptr<connection> open_connection(const setting& how) {
    return std::make_unique<sdbus_connection>(how);
}
