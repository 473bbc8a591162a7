// What the tests of the producer share: a callback that holds its answer back, and callers at the steps that matter to
// it.
#pragma once

#include "framework_support.h"
#include "kservice.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <unistd.h>

namespace support {

inline gate* held = nullptr; ///< Where the requests of hold() wait; the test's.
/// The process that serves. The worker table says so too, but while the producer runs it is the producer's alone.
inline const shared<std::atomic<pid_t>> server;

/// A callback that notes its process in `server`, and answers once `held` opens.
inline int hold(const char*, ks_io* io, int) {
    *server = getpid();
    held->pass();
    answer(io, "done");
    return 0;
}

/// A caller that has sent its request and whose answer is held back.
class held_request {
public:
    explicit held_request(const std::string& path) : caller_(path), file_(memory_file()) {
        EXPECT_TRUE(caller_.invited());
        EXPECT_TRUE(caller_.send(make_record(8, 0, "c")) && caller_.send_fds({file_.get()}));
        EXPECT_TRUE(held->await());
    }
    raw_caller& caller() { return caller_; }

private:
    raw_caller caller_;
    descriptor file_;
};

/// Connects a caller for whom nobody is free, and waits until the producer, which is in this process, has accepted it:
/// the process then has `sockets` sockets. Until the last hand-over's echo it has one more.
inline std::unique_ptr<raw_caller> accepted_caller(const std::string& path, size_t sockets) {
    EXPECT_TRUE(eventually([sockets] { return open_sockets() == sockets - 2; })) << open_sockets();
    auto caller = std::make_unique<raw_caller>(path);
    EXPECT_TRUE(eventually([sockets] { return open_sockets() == sockets; })) << open_sockets();
    return caller;
}

} // namespace support
