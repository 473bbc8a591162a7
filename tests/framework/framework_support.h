// What the framework's tests share: services that are up while an object lives, a caller written byte by byte, and
// ways to wait for something instead of sleeping.
//
// ks_stop() closes descriptor 0 by rule. Whoever stops a service here gives the process a standard input back, so that
// no test finds a socket of its own under number 0.
#pragma once

#include "kservice.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <new>
#include <optional>
#include <semaphore.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <thread>
#include <vector>

namespace support {

/// Polls until `condition` holds. False = it did not within `within`.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds within = std::chrono::seconds(30));

/// Owns one descriptor.
class descriptor {
public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor() { reset(); }
    descriptor(descriptor&& other) noexcept : fd_(other.release()) {}
    descriptor& operator=(descriptor&& other) noexcept;
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;

    int get() const { return fd_; }
    int release();
    void reset(int fd = -1);

private:
    int fd_;
};

/// A directory of its own, removed with what is in it.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }

private:
    std::string path_;
};

/// Opens /dev/null as descriptor 0 if nothing is there.
void restore_stdin();

/// Numbers of this process's open descriptors, how many of them are sockets, and how many threads it has.
std::vector<int> open_descriptors();
size_t open_sockets();
/// How many descriptors are open once nothing is under way any more: the same number in fifty looks running.
size_t settled_descriptors();
size_t thread_count();
/// CPU time that the whole process has used, in milliseconds.
int64_t cpu_ms();

/// The request's bytes (the first 64 KiB), read from the file and not from the mapping.
std::string text_of(ks_io* io);
/// Answers `text` if the caller still waits, and frees `io`.
void answer(ks_io* io, std::string_view text);
/// A callback that answers "<command>|<request>|<first bytes of the extra descriptor, or none>".
int echo(const char* command, ks_io* io, int fd);

/// A memory file with `text` in it; sealable.
descriptor memory_file(std::string_view text = "");

/// A started service; stops and frees it at the end. Without KS_STANDALONE a thread of its own is inside ks_start().
class service {
public:
    /// `prepare` runs between ks_create() and ks_start().
    service(unsigned mode, size_t workers, ks_exec exec, const std::function<void(ks_handle*)>& prepare = nullptr);
    service(const std::string& name, unsigned mode, size_t workers, ks_exec exec);
    ~service();
    service(const service&) = delete;
    service& operator=(const service&) = delete;

    ks_handle* handle() const { return handle_; }
    const char* name() const { return name_.c_str(); }
    std::string path() const { return handle_->sockfile; }
    void stop();

private:
    void start(unsigned mode);

    temp_dir dir_;
    std::string name_;
    ks_handle* handle_ = nullptr;
    std::thread runner_;
};

/// Entry `index` of a running service's table. It is the producer's alone, so the kernel reads it for us, and the
/// thread sanitizer need not know.
ks_worker entry_of(const ks_handle* handle, size_t index);

/// One blocking call with `text`; the code, and the reply in `ret_reply`.
unsigned call(const char* name, const char* command, std::string_view text, std::string* ret_reply, int passfd = -1);

/// One directive as it stands on the wire.
using record = std::array<unsigned char, 259>;
record make_record(unsigned char type, unsigned char flags = 0, std::string_view data = "");

/// A caller that says exactly what the test wants.
class raw_caller {
public:
    explicit raw_caller(const std::string& path);
    bool connected() const { return connected_; }
    int fd() const { return fd_.get(); }
    bool send_bytes(const void* bytes, size_t size) const;
    bool send(const record& what) const { return send_bytes(what.data(), what.size()); }
    /// One message: `bytes` data bytes and one SCM_RIGHTS control message with all of `fds` (none when empty).
    bool send_fds(const std::vector<int>& fds, size_t bytes = 1) const;
    /// The next whole directive; nothing when the service hung up first, or said nothing for `within`.
    std::optional<record> receive(std::chrono::milliseconds within = std::chrono::seconds(30)) const;
    /// Whether the service hangs up, with nothing (more) said.
    bool hung_up(std::chrono::milliseconds within = std::chrono::seconds(30)) const;
    /// Waits for directive 7.
    bool invited() const;
    /// Sends the request `command` with `memfd` and waits for directive 9.
    bool request(std::string_view command, int memfd) const;
    void shut_write() const;
    void close() { fd_.reset(); }

private:
    descriptor fd_;
    bool connected_ = false;
};

/// One T in memory that forked processes share. Process workers close their descriptors, so pipes would not do.
template <class T>
class shared {
public:
    shared() : memory_(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        new (memory_) T();
    }
    ~shared() { munmap(memory_, sizeof(T)); }
    shared(const shared&) = delete;
    shared& operator=(const shared&) = delete;
    T* operator->() const { return static_cast<T*>(memory_); }
    T& operator*() const { return *static_cast<T*>(memory_); }

private:
    void* memory_;
};

/// Where a callback, in whatever thread or process, waits until the test opens.
class gate {
public:
    gate();
    ~gate();
    gate(const gate&) = delete;
    gate& operator=(const gate&) = delete;
    void pass() const;              ///< Announces itself, then waits for one open().
    bool await(size_t n = 1) const; ///< Waits until `n` more have announced themselves.
    void open(size_t n = 1) const;  ///< Lets `n` pass.

private:
    struct semaphores {
        sem_t arrived;
        sem_t go;
    };
    shared<semaphores> both_;
};

/// Ends the process with status 99 if it still lives after that time, whatever its threads wait for and whatever
/// signals they block. For death tests.
void end_within(std::chrono::seconds limit);

/// From here on system call `number` fails with `error` in all threads. With `argument` >= 0 only
/// calls whose second argument equals it. Not to be undone: for death tests.
void fail_system_call(long number, int error, long argument = -1);

/// Decides about the system calls that this thread, and the threads and processes it starts from here on, make: all go
/// on but those that shall fail. Not to be undone: for death tests.
class supervised_calls {
public:
    explicit supervised_calls(const std::vector<long>& numbers);
    supervised_calls(const supervised_calls&) = delete;
    supervised_calls& operator=(const supervised_calls&) = delete;

    /// The next call of `number` with `fd` as its first argument fails with `error`.
    void fail_next(long number, int fd, int error);
    /// Whether that has happened.
    bool done() const { return error_ == 0; }
    /// The next supervised call passes `where` first, and all others wait behind it.
    void hold_next(const gate& where) { where_ = &where; }

private:
    void supervise();

    int listener_;
    std::atomic<long> number_ = 0;
    std::atomic<int> fd_ = 0;
    std::atomic<int> error_ = 0;
    std::atomic<const gate*> where_ = nullptr;
};

/// From here on this process, as an ordinary user's, may have no more descriptors in flight than it may have open,
/// which are few (unix(7), ETOOMANYREFS). Threads must not have been started yet. Not to be undone: for death tests.
void limit_descriptors_in_flight();

/// With that limit: none can be passed by anybody in this process for as long as the object lives.
class no_descriptor_passed {
public:
    no_descriptor_passed();

private:
    descriptor from_;
    descriptor to_; // nobody reads what is in flight to it
};

/// From here on this thread's system call `number` raises SIGSYS where it would be made. Not to be undone.
void trap_system_call(long number);

/// Whether thread `tid` of this process is asleep in the kernel.
bool is_asleep(pid_t tid);

} // namespace support
