// kservice.hpp: kservice.h for C++17 and later. Owner types, text in and text out, errors as values. Header only.
//
//     kservice::result<std::string> reply = kservice::call("VexHubServer-vexprod", "get_vpd_channel");
//     if (reply) {
//         use(*reply);
//     } else {
//         complain(kservice::describe(reply.error()));
//     }
//
// And a service, with two workers:
//
//     kservice::service service("my-service", 2, [](kservice::request& request) { (void)request.reply("pong"); });
//     service.start();
//
// Only result::value() and text(), on an error, and the C++ library (std::bad_alloc) throw; the header compiles with
// -fno-exceptions, where value() and text() abort instead, and read() does not. Misuse (a service name that is too
// long, a service started twice) and exhausted descriptors abort with one line, as kservice.h says.
#ifndef KSERVICE_HPP
#define KSERVICE_HPP

#include "kservice.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kservice {

/// How a call ended; the values are the result codes of kservice.h.
enum class status : unsigned {
    ok = KS_OK,
    timeout = KS_TIMEOUT,
    no_service = KS_NO_SERVICE,
    paused = KS_PAUSED,
    refused = KS_REFUSED,
    disconnected = KS_DISCONNECTED, ///< also: the request could not be stored, and was not sent; the reply not be read
    busy = KS_BUSY,
    bad_argument = KS_BAD_ARGUMENT,
};

/// @return A short description, such as "service is busy"; static.
inline const char* describe(status code) noexcept {
    switch (code) {
    case status::ok:
        return "success";
    case status::timeout:
        return "time-out";
    case status::no_service:
        return "no such service";
    case status::paused:
        return "service is paused";
    case status::refused:
        return "service refused the call";
    case status::disconnected:
        return "connection ended without a reply";
    case status::busy:
        return "service is busy";
    case status::bad_argument:
        return "service name or command is missing or too long";
    }
    return "unknown result code";
}

/// What result::value() throws.
class call_error : public std::runtime_error {
public:
    explicit call_error(status code) : std::runtime_error(describe(code)), code_(code) {}
    [[nodiscard]] status code() const noexcept { return code_; }

private:
    status code_;
};

/// A value, or the reason why there is none.
template <class T>
class [[nodiscard]] result {
public:
    result(T value) : value_(std::move(value)) {}
    result(status error) : error_(error) {}

    explicit operator bool() const noexcept { return value_.has_value(); }
    [[nodiscard]] bool has_value() const noexcept { return value_.has_value(); }
    /// status::ok when there is a value.
    [[nodiscard]] status error() const noexcept { return error_; }
    /// The value; there must be one.
    [[nodiscard]] T& operator*() noexcept { return *value_; }
    [[nodiscard]] const T& operator*() const noexcept { return *value_; }
    [[nodiscard]] T* operator->() noexcept { return &*value_; }
    [[nodiscard]] const T* operator->() const noexcept { return &*value_; }
    /// The value. Throws call_error when there is none; without exceptions prints the reason and aborts.
    [[nodiscard]] T& value() & {
        require();
        return *value_;
    }
    [[nodiscard]] const T& value() const& {
        require();
        return *value_;
    }
    [[nodiscard]] T value() && {
        require();
        return std::move(*value_);
    }

private:
    void require() const {
        if (!value_) {
#ifdef __cpp_exceptions
            throw call_error(error_);
#else
            (void)std::fprintf(stderr, "kservice: %s\n", describe(error_));
            std::abort();
#endif
        }
    }

    std::optional<T> value_;
    status error_ = status::ok;
};

/// Owns a ks_io: one request or its reply. Moved-from = empty; may then only be assigned or destroyed.
class message {
public:
    message() : io_(ks_io_create()) {}
    /// Takes over `io`.
    explicit message(ks_io* io) noexcept : io_(io) {}

    /// The object, for the functions of kservice.h; still owned.
    [[nodiscard]] ks_io* get() const noexcept { return io_.get(); }
    /// Gives up ownership: the caller must ks_io_free() the object.
    [[nodiscard]] ks_io* release() noexcept { return io_.release(); }

    /// Appends `text`. @return False and errno if it does not fit (memory, RLIMIT_FSIZE); part of it may be written.
    [[nodiscard]] bool write(std::string_view text) {
        constexpr std::size_t kLargestWrite = std::size_t{1} << 30;
        while (!text.empty()) {
            const ssize_t count = ks_io_write(get(), text.data(), std::min(text.size(), kLargestWrite));
            if (count <= 0) {
                return false;
            }
            text.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }

    /// A copy of all its bytes, not made from the mapping, as the peer may truncate the file at any moment.
    /// @return status::disconnected if they cannot be read.
    [[nodiscard]] result<std::string> read() const {
        std::string bytes(ks_io_size(get()), '\0');
        std::size_t filled = 0;
        while (filled < bytes.size()) {
            const ssize_t count =
                pread(ks_io_fileno(get()), bytes.data() + filled, bytes.size() - filled, static_cast<off_t>(filled));
            if (count < 0) {
                return status::disconnected;
            }
            if (count == 0) { // truncated meanwhile
                break;
            }
            filled += static_cast<std::size_t>(count);
        }
        bytes.resize(filled);
        return result<std::string>(std::move(bytes));
    }
    /// The same; if they cannot be read, as result::value().
    [[nodiscard]] std::string text() const { return read().value(); }

private:
    struct free_io {
        void operator()(ks_io* io) const noexcept { ks_io_free(io); }
    };
    std::unique_ptr<ks_io, free_io> io_;
};

/// The library raises shorter timeouts to this.
inline constexpr std::chrono::seconds kShortestTimeout{5};

namespace detail {

/// Whether `name` is missing, or a NUL in it would cut it short. The library looks at its length.
inline bool cannot_be_sent(std::string_view name) {
    return name.empty() || name.find('\0') != std::string_view::npos;
}

/// A message that holds `request`, or nothing if it does not fit: a part would be a different request.
inline std::optional<message> stored(std::string_view request) {
    message stored;
    if (!stored.write(request)) {
        return std::nullopt;
    }
    return stored;
}

} // namespace detail

/// Sends one request and waits for its reply.
/// @param timeout   At least kShortestTimeout, see ks_call().
/// @param extra_fd  Borrowed descriptor to hand to the service, or -1.
/// @return The reply's bytes. Any thread may call.
inline result<std::string> call(const std::string& service, const std::string& command, std::string_view request = {},
                                std::chrono::seconds timeout = std::chrono::seconds(30), int extra_fd = -1) {
    if (detail::cannot_be_sent(service) || detail::cannot_be_sent(command)) {
        return status::bad_argument;
    }
    const std::optional<message> io = detail::stored(request);
    if (!io) {
        return status::disconnected;
    }
    const auto longest = static_cast<std::chrono::seconds::rep>(std::numeric_limits<unsigned>::max());
    const auto timeout_s = std::clamp<std::chrono::seconds::rep>(timeout.count(), 0, longest);
    const unsigned code =
        ks_call(service.c_str(), command.c_str(), io->get(), static_cast<unsigned>(timeout_s), extra_fd);
    if (code != KS_OK) {
        return static_cast<status>(code);
    }
    return io->read();
}

/// Requests in flight at the same time. Owns them and their ks_epoll. One thread at a time.
class set {
public:
    /// A request that has ended.
    struct ended {
        std::size_t tag = 0; ///< as given to add()
        result<std::string> reply = status::disconnected;
    };

    set() : epoll_(ks_epoll_create()) {}

    /// Sends a request as soon as its service invites it, inside wait().
    /// @param tag       Returned with the reply.
    /// @param extra_fd  Borrowed descriptor to hand over, or -1; kept open until the request has ended.
    /// @return status::ok, or why nothing was sent. Blocks while the service's backlog is full, for 5 seconds at most.
    [[nodiscard]] status add(const std::string& service, const std::string& command, std::string_view request = {},
                             std::size_t tag = 0, int extra_fd = -1) {
        if (detail::cannot_be_sent(service) || detail::cannot_be_sent(command)) {
            return status::bad_argument;
        }
        std::optional<message> io = detail::stored(request);
        if (!io) {
            return status::disconnected;
        }
        requests_.push_back({std::move(*io), tag});
        ks_io* const added = requests_.back().io.get();
        const unsigned code = ks_epoll_call(epoll_.get(), service.c_str(), command.c_str(), added, extra_fd);
        if (code != KS_OK) {
            requests_.pop_back();
        }
        return static_cast<status>(code);
    }

    /// Waits until one request has ended. @return Nothing if none did within `timeout`, or if there is none.
    [[nodiscard]] std::optional<ended> wait(std::chrono::milliseconds timeout) {
        using std::chrono::steady_clock;
        const auto begin = steady_clock::now();
        auto left = timeout;
        while (!requests_.empty()) {
            constexpr std::chrono::milliseconds::rep kLongestWait = std::numeric_limits<int>::max();
            const auto wait_ms = std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, kLongestWait);
            unsigned code = KS_OK;
            const ks_io* const io = ks_epoll_perform(epoll_.get(), static_cast<unsigned>(wait_ms), &code);
            if (io != nullptr) {
                return take(io, static_cast<status>(code));
            }
            left = timeout - std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - begin);
            if (left.count() <= 0 && code == KS_TIMEOUT) {
                break;
            }
        }
        return std::nullopt;
    }

    /// How many have not ended.
    [[nodiscard]] std::size_t size() const noexcept { return requests_.size(); }

private:
    struct in_flight {
        message io;
        std::size_t tag;
    };
    struct free_epoll {
        void operator()(ks_epoll* epoll) const noexcept { ks_epoll_free(epoll); }
    };

    ended take(const ks_io* io, status code) {
        const auto found = std::find_if(requests_.begin(), requests_.end(),
                                        [io](const in_flight& each) { return each.io.get() == io; });
        const message finished = std::move(found->io);
        const std::size_t tag = found->tag;
        requests_.erase(found);
        if (code != status::ok) {
            return {tag, code};
        }
        return {tag, finished.read()};
    }

    std::unique_ptr<ks_epoll, free_epoll> epoll_;
    std::vector<in_flight> requests_;
};

/// One request as a service's handler sees it. Ends with the handler: without a reply() its connection is closed.
class request {
public:
    request(const char* command, ks_io* io, int extra_fd) : command_(command), io_(io), extra_fd_(extra_fd) {}
    request(const request&) = delete;
    request& operator=(const request&) = delete;
    ~request() {
        if (extra_fd_ >= 0) {
            (void)close(extra_fd_);
        }
    }

    [[nodiscard]] const std::string& command() const noexcept { return command_; }
    /// What the caller sent; valid until reply(). If it cannot be read, as of a message.
    [[nodiscard]] result<std::string> read() const { return io_.read(); }
    [[nodiscard]] std::string text() const { return io_.text(); }
    /// The caller's extra descriptor, closed with this object; -1 = none.
    [[nodiscard]] int extra_fd() const noexcept { return extra_fd_; }
    /// The caller's credentials, from the kernel.
    [[nodiscard]] pid_t pid() const { return ks_io_pid(io_.get()); }
    [[nodiscard]] uid_t uid() const { return ks_io_uid(io_.get()); }
    [[nodiscard]] gid_t gid() const { return ks_io_gid(io_.get()); }
    /// False once the caller has gone.
    [[nodiscard]] bool alive() const { return ks_io_alive(io_.get()) != 0; }
    /// Sends the reply; once. @return False and errno if it cannot be stored: the connection is then closed.
    [[nodiscard]] bool reply(std::string_view text) {
        ks_io_realloc(io_.get(), 0);
        if (!io_.write(text)) {
            return false;
        }
        ks_reply(io_.get());
        return true;
    }

private:
    std::string command_;
    message io_;
    int extra_fd_;
};

/// Owns a ks_handle: a named service.
class service {
public:
    /// Serves one request; called by as many workers at once as the service has. What it throws ends that request only.
    using handler = std::function<void(request&)>;

    /// Nothing is published yet. Aborts on an empty or too long name and on 0 workers, see ks_create().
    /// @param mode  As for ks_create(): without KS_STANDALONE start() itself serves.
    service(const std::string& name, std::size_t workers, handler serve,
            unsigned mode = KS_STANDALONE | KS_PTHREAD_MODE)
        : serve_(std::make_unique<handler>(std::move(serve))), handle_(ks_create(name.c_str(), mode, workers, run)) {
        // The library's exec callback takes no argument of ours, but the init callback does.
        ks_worker_init(
            handle_.get(), [](void* argument) { current() = static_cast<const handler*>(argument); }, serve_.get());
    }

    service(service&&) noexcept = default;
    /// Ends the service that this was, as its end does.
    service& operator=(service&& other) noexcept {
        handle_ = std::move(other.handle_); // its workers end before their handler goes
        serve_ = std::move(other.serve_);
        return *this;
    }
    ~service() = default;

    /// The object, for the functions of kservice.h; still owned. Its ks_worker_init() callback is in use.
    [[nodiscard]] ks_handle* get() const noexcept { return handle_.get(); }

    void start() { ks_start(get()); }   ///< See ks_start().
    void stop() { ks_stop(get()); }     ///< See ks_stop(); the destructor does it too.
    void pause() { ks_pause(get()); }   ///< See ks_pause().
    void resume() { ks_resume(get()); } ///< See ks_resume().

private:
    struct free_handle {
        void operator()(ks_handle* handle) const noexcept { ks_free(handle); }
    };

    /// The handler of the worker that runs this thread, or this process.
    static const handler*& current() {
        static thread_local const handler* of_this_worker = nullptr;
        return of_this_worker;
    }

    static int run(const char* command, ks_io* io, int extra_fd) {
#ifdef __cpp_exceptions
        try {
            serve(command, io, extra_fd);
        } catch (const std::exception& error) {
            (void)std::fprintf(stderr, "kservice: %s: %s\n", command, error.what());
        } catch (...) {
            (void)std::fprintf(stderr, "kservice: %s: unknown exception\n", command);
        }
#else
        serve(command, io, extra_fd);
#endif
        return 0;
    }

    static void serve(const char* command, ks_io* io, int extra_fd) {
        request asked(command, io, extra_fd);
        (*current())(asked);
    }

    std::unique_ptr<handler> serve_; // outlives the workers; its address survives a move of this object
    std::unique_ptr<ks_handle, free_handle> handle_;
};

} // namespace kservice

#endif
