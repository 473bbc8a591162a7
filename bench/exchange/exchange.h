// One request and its reply, carried by different means and timed alike.
//
// A contender is one source that defines kForms, serve() and open_connection(). exchange.cpp makes a program of it:
//
//     PROGRAM [--form FORM] [--persistent] latency SIZE_BYTES MS    microseconds of one call, the median
//     PROGRAM [--form FORM] [--persistent] rate CALLERS MS          calls a second of 64 bytes each
//
// It prints {"value":...,"calls":...} on one line. The service is a process of its own, and so is each caller. All do
// the same work: the caller's payload comes to the service, which looks at every byte and answers with a text of 64
// bytes; the caller holds the text in memory of its own and compares it with what it has to be.
#ifndef VEXPROD_BENCH_EXCHANGE_H
#define VEXPROD_BENCH_EXCHANGE_H

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

inline constexpr size_t kReplySize = 64;
using reply_text = std::array<char, kReplySize>;

/// What a contender is asked to be.
struct setting {
    std::string form;        ///< One of kForms.
    std::string folder;      ///< For sockets and the like; removed at the end.
    bool persistent = false; ///< A caller has one connection for all its calls, instead of one for each.
};

/// A caller's side. Made and destroyed around each call, or once for all.
class connection {
public:
    connection() = default;
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    virtual ~connection() = default;

    /// One call, from the payload in the caller's memory to the reply in `ret_reply`.
    virtual void call(std::string_view payload, std::string* ret_reply) = 0;
    /// The reply that call() has to bring.
    [[nodiscard]] virtual std::string expected(std::string_view payload) const;
};

/// The service's work.
reply_text answer(const void* payload, size_t size);

/// Ends the process with a line that names the step, and errno, unless it succeeded: half an exchange is no
/// measurement.
void must(bool succeeded, const char* step);

/// To be called first in a child: it then ends with the thread that forked it.
void end_with_parent();

// ---- What a contender defines ----

/// The forms that it comes in; the first is the usual one.
extern const std::span<const std::string_view> kForms;

/// The service, in a process of its own that is killed in the end. Calls `ready` once callers may come.
void serve(const setting& how, const std::function<void()>& ready);

std::unique_ptr<connection> open_connection(const setting& how);

#endif
