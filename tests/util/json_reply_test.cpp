// Replies, through a real service.
#include "json_helpers.h"
#include "scoped.h"
#include "test_files.h"

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <sys/socket.h>

namespace {

struct end_service {
    void operator()(ks_handle* service) const { ks_free(service); }
};
using unique_service = std::unique_ptr<ks_handle, end_service>;

constexpr std::chrono::seconds kDeadline{30};

// What the service's worker and the test tell one another, and wait for.
class conversation {
public:
    void set(const std::string& what, const std::string& text = "") {
        const std::lock_guard lock(mutex_);
        said_[what] = text;
        changed_.notify_all();
    }
    // The text that came with `what`; fails the test when it does not come in time.
    std::string wait_for(const std::string& what) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, kDeadline, [&] { return said_.count(what) != 0; })) << what;
        return said_[what];
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, std::string> said_;
};

conversation talk;

int serve(const char* command, ks_io* io, int fd) {
    (void)fd;
    const unique_io owner(io);
    if (std::string(command) == "late") {
        talk.set("request arrived");
        talk.wait_for("caller gone");
        for (const auto end = std::chrono::steady_clock::now() + kDeadline;
             ks_io_alive(io) != 0 && std::chrono::steady_clock::now() < end;) {
            std::this_thread::yield();
        }
        ks_reply_json("too late", io);
        talk.set("text left", request_text(io));
        return 0;
    }
    ks_reply_json(std::string(command) + ":" + request_text(io) + " 100%s\n", io);
    return 0;
}

class JsonReplyTest : public testing::Test {
protected:
    test_folder folder;
    const std::string name = "@" + (folder / "service.sock");
    unique_service service{ks_create(name.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, serve)};

    void SetUp() override { ks_start(service.get()); }
};

TEST_F(JsonReplyTest, ReplacesTheRequestByTheReply) {
    const unique_io io(ks_io_create());
    const std::string request = "a request that is longer than its reply will be, by far and without any doubt";
    ASSERT_EQ(ks_io_write(io.get(), request.data(), request.size()), static_cast<ssize_t>(request.size()));
    ASSERT_EQ(ks_call(name.c_str(), "echo", io.get(), 5, -1), 0U);
    EXPECT_EQ(request_text(io.get()), "echo:" + request + " 100%s\n");
    EXPECT_EQ(io->shared_size, request.size() + 12);
    EXPECT_EQ(io->sockfd, -1);
}

TEST_F(JsonReplyTest, SendsNothingToACallerThatIsGone) {
    const unique_io io(ks_io_create());
    ASSERT_EQ(ks_io_write(io.get(), "request", 7), 7);
    ks_epoll* calls = ks_epoll_create();
    ASSERT_EQ(ks_epoll_call(calls, name.c_str(), "late", io.get(), -1), 0U);
    unsigned status = 0;
    EXPECT_EQ(ks_epoll_perform(calls, 10000, &status), nullptr);
    ASSERT_EQ(status, 0U) << "the request is on its way";
    talk.wait_for("request arrived");
    ks_epoll_cancel(calls, io.get());
    talk.set("caller gone");
    EXPECT_EQ(talk.wait_for("text left"), "request");
    ks_epoll_free(calls);
}

} // namespace
