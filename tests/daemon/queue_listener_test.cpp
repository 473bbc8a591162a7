// The listener on real queues. Every test has the System V objects to itself: the simulated host has its own.
#include "host_records.h"
#include "queue_listener.h"
#include "test_files.h"
#include "unique_fd.h"
#include "wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <map>
#include <mutex>
#include <new>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <vector>

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::ElementsAre;

constexpr int kKey = 4711;
constexpr unsigned long kBody = 16;

// What the callback received: whole records, type word first.
std::mutex received_mutex;
std::vector<std::string> received;
std::atomic<bool> callback_waits = false;
std::atomic<int> callbacks_begun = 0;

void keep(void* record) {
    ++callbacks_begun;
    {
        const std::lock_guard lock(received_mutex);
        received.emplace_back(static_cast<const char*>(record), sizeof(long) + kBody);
    }
    while (callback_waits) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Has no memory for a record that begins with '!'.
void keep_if_possible(void* record) {
    if (static_cast<const char*>(record)[sizeof(long)] == '!') {
        throw std::bad_alloc();
    }
    keep(record);
}

std::vector<std::string> received_records() {
    const std::lock_guard lock(received_mutex);
    return received;
}

std::string whole(long type, std::string body) {
    body.resize(kBody, '\0');
    return std::string(reinterpret_cast<const char*>(&type), sizeof(type)) + body;
}

host_record record_of(long type, const std::string& body) {
    return host_record(type, kBody).text(8, body);
}

// Standard error in a file for as long as it lives.
class stderr_in_file {
public:
    stderr_in_file() : kept_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
        (void)fflush(stderr);
        const unique_fd file(open(path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        dup2(file.get(), STDERR_FILENO);
    }
    stderr_in_file(const stderr_in_file&) = delete;
    stderr_in_file& operator=(const stderr_in_file&) = delete;
    ~stderr_in_file() { dup2(kept_.get(), STDERR_FILENO); }
    [[nodiscard]] std::string path() const { return folder_ / "stderr"; }
    [[nodiscard]] bool is_empty() const { return std::filesystem::file_size(path()) == 0; }
    [[nodiscard]] std::string first_line() const {
        std::ifstream file(path());
        std::string line;
        std::getline(file, line);
        return line;
    }

private:
    test_folder folder_;
    unique_fd kept_;
};

// Waits until some thread of this process sleeps in the receive.
bool receive_is_entered() {
    return wait_until([] {
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            long system_call = -1; // a running thread's is no number
            std::ifstream(task.path() / "syscall") >> system_call;
            if (system_call == SYS_msgrcv) {
                return true;
            }
        }
        return false;
    });
}

class QueueListenerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(getenv("HOSTSIM"), nullptr);
        received.clear();
        callback_waits = false;
        callbacks_begun = 0;
        begin_ = steady_clock::now();
    }
    [[nodiscard]] bool was_prompt() const { return steady_clock::now() - begin_ < seconds(5); }

    steady_clock::time_point begin_;
};

TEST_F(QueueListenerTest, MakesAMissingQueueReadableByAllAndWritableByItsOwner) {
    ASSERT_FALSE(queue_exists(kKey));
    T_MSGQ_service listener(kKey, keep, kBody);
    msqid_ds status = {};
    ASSERT_EQ(msgctl(msgget(kKey, 0), IPC_STAT, &status), 0);
    EXPECT_EQ(status.msg_perm.mode & 0777U, 0644U);
    listener.remove_msgq();
    EXPECT_FALSE(queue_exists(kKey));
}

TEST_F(QueueListenerTest, SharesAnExistingQueueWithTheRecordsInIt) {
    const int id = msgget(kKey, IPC_CREAT | 0600);
    ASSERT_TRUE(post(kKey, record_of(5, "earlier")));
    T_MSGQ_service listener(kKey, keep, kBody);
    EXPECT_EQ(msgget(kKey, 0), id);
    EXPECT_EQ(listener.server_start(), 0);
    ASSERT_TRUE(wait_until([] { return received_records().size() == 1; }));
    EXPECT_EQ(received_records()[0], whole(5, "earlier"));
    EXPECT_EQ(listener.server_stop(), 0);
}

TEST_F(QueueListenerTest, DestructionAloneLeavesTheQueue) {
    { const T_MSGQ_service listener(kKey, keep, kBody); }
    EXPECT_TRUE(queue_exists(kKey));
}

TEST_F(QueueListenerTest, HandsOverEveryRecordOfAnyTypeWholeAndInQueueOrder) {
    T_MSGQ_service listener(kKey, keep, kBody);
    listener.server_start();
    std::vector<std::string> expected;
    for (long i = 1; i <= 500; ++i) {
        const long type = 501 - i; // the order of the queue, not that of the types
        ASSERT_TRUE(post(kKey, record_of(type, std::to_string(i))));
        expected.push_back(whole(type, std::to_string(i)));
    }
    ASSERT_TRUE(wait_until([] { return received_records().size() == 500; }));
    listener.server_stop();
    EXPECT_EQ(received_records(), expected);
}

TEST_F(QueueListenerTest, AShorterRecordDoesNotShowTheRestOfTheOneBefore) {
    T_MSGQ_service listener(kKey, keep, kBody);
    listener.server_start();
    ASSERT_TRUE(post(kKey, record_of(1, "0123456789abcdef")));
    ASSERT_TRUE(post(kKey, host_record(2, 3).text(8, "xyz")));
    ASSERT_TRUE(post(kKey, host_record(3, 0)));
    ASSERT_TRUE(wait_until([] { return received_records().size() == 3; }));
    listener.server_stop();
    EXPECT_THAT(received_records(), ElementsAre(whole(1, "0123456789abcdef"), whole(2, "xyz"), whole(3, "")));
}

TEST_F(QueueListenerTest, ARecordWhoseCallbackThrowsIsReportedAndCostsOnlyItself) {
    const stderr_in_file err;
    T_MSGQ_service listener(kKey, keep_if_possible, kBody);
    listener.server_start();
    ASSERT_TRUE(post(kKey, record_of(1, "!")));
    ASSERT_TRUE(post(kKey, record_of(2, "next")));
    ASSERT_TRUE(wait_until([] { return received_records().size() == 1; }));
    listener.server_stop();
    EXPECT_EQ(received_records()[0], whole(2, "next"));
    EXPECT_EQ(err.first_line(), "record of queue 4711 dropped: std::bad_alloc");
}

TEST_F(QueueListenerTest, StopEndsABlockedReceivePromptlySilentlyAndRemovesTheQueue) {
    const stderr_in_file err;
    T_MSGQ_service listener(kKey, keep, kBody);
    listener.server_start();
    ASSERT_TRUE(receive_is_entered());
    EXPECT_EQ(listener.server_stop(), 0);
    EXPECT_TRUE(was_prompt());
    EXPECT_EQ(msgget(kKey, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(err.is_empty());
}

TEST_F(QueueListenerTest, StartAndStopAtOnceEndsEveryTime) {
    const stderr_in_file err;
    for (int i = 0; i < 500; ++i) {
        T_MSGQ_service listener(kKey, keep, kBody);
        listener.server_start();
        listener.server_stop();
        ASSERT_FALSE(queue_exists(kKey)) << i;
    }
    EXPECT_TRUE(err.is_empty()) << err.first_line();
}

TEST_F(QueueListenerTest, StoppingOneThatWasNeverStartedRemovesTheQueue) {
    T_MSGQ_service listener(kKey, keep, kBody);
    EXPECT_EQ(listener.server_stop(), 0);
    EXPECT_FALSE(queue_exists(kKey));
}

TEST_F(QueueListenerTest, StopWaitsForTheCallbackUnderWayAndBeginsNoOther) {
    T_MSGQ_service listener(kKey, keep, kBody);
    callback_waits = true;
    listener.server_start();
    ASSERT_TRUE(post(kKey, record_of(1, "first")));
    ASSERT_TRUE(wait_until([] { return callbacks_begun == 1; }));
    ASSERT_TRUE(post(kKey, record_of(1, "second")));
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        listener.server_stop();
        stopped = true;
    });
    ASSERT_TRUE(wait_until([] { return !queue_exists(kKey); }));
    EXPECT_FALSE(stopped);
    callback_waits = false;
    stopper.join();
    EXPECT_EQ(callbacks_begun, 1);
}

TEST_F(QueueListenerTest, AnAnnouncedStopLetsTheCallbackUnderWayBeTheLast) {
    T_MSGQ_service listener(kKey, keep, kBody);
    callback_waits = true;
    listener.server_start();
    ASSERT_TRUE(post(kKey, record_of(1, "first")));
    ASSERT_TRUE(wait_until([] { return callbacks_begun == 1; }));
    ASSERT_TRUE(post(kKey, record_of(1, "second")));
    listener.announce_stop();
    callback_waits = false;
    EXPECT_TRUE(queue_exists(kKey)) << "announcing removes nothing";
    listener.server_stop();
    EXPECT_EQ(callbacks_begun, 1);
}

TEST_F(QueueListenerTest, ARecordThatComesAfterTheAnnouncementBeginsNoCallback) {
    T_MSGQ_service listener(kKey, keep, kBody);
    listener.server_start();
    listener.announce_stop();
    ASSERT_TRUE(post(kKey, record_of(1, "late")));
    listener.server_stop();
    EXPECT_EQ(callbacks_begun, 0);
}

TEST_F(QueueListenerTest, StoppingWhileTheQueueIsFullIsPrompt) {
    T_MSGQ_service listener(kKey, keep, kBody);
    callback_waits = true;
    listener.server_start();
    ASSERT_TRUE(post(kKey, record_of(1, "first")));
    ASSERT_TRUE(wait_until([] { return callbacks_begun == 1; }));
    const host_record filler = record_of(2, "filler");
    while (T_MSGQ_service::send_msg(kKey, filler.data(), filler.body_size()) == 0) {
    }
    // A producer that waits for room is told that the queue is gone.
    std::atomic<int> blocked_error = 0;
    const int id = msgget(kKey, 0);
    std::thread producer([&] { blocked_error = msgsnd(id, filler.data(), filler.body_size(), 0) == 0 ? -1 : errno; });
    callback_waits = false;
    listener.announce_stop();
    listener.server_stop();
    producer.join();
    EXPECT_TRUE(was_prompt());
    EXPECT_FALSE(queue_exists(kKey));
    EXPECT_TRUE(blocked_error == EIDRM || blocked_error == EINVAL || blocked_error == -1) << blocked_error;
}

TEST_F(QueueListenerTest, AQueueThatSomebodyElseRemovesEndsTheThreadSilently) {
    const stderr_in_file err;
    T_MSGQ_service listener(kKey, keep, kBody);
    listener.server_start();
    const auto threads = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    const auto with_listener = threads();
    ASSERT_TRUE(receive_is_entered());
    ASSERT_EQ(msgctl(msgget(kKey, 0), IPC_RMID, nullptr), 0);
    EXPECT_TRUE(wait_until([&] { return threads() < with_listener; }));
    listener.server_stop();
    EXPECT_TRUE(err.is_empty()) << err.first_line();
}

TEST_F(QueueListenerTest, AQueueRemovedDuringACallbackIsReportedUntilTheStop) {
    const stderr_in_file err;
    T_MSGQ_service listener(kKey, keep, kBody);
    const int id = msgget(kKey, 0);
    callback_waits = true;
    listener.server_start();
    ASSERT_TRUE(post(kKey, record_of(1, "x")));
    ASSERT_TRUE(wait_until([] { return callbacks_begun == 1; }));
    ASSERT_EQ(msgctl(id, IPC_RMID, nullptr), 0);
    callback_waits = false;
    ASSERT_TRUE(wait_until([&] { return !err.is_empty(); }));
    listener.server_stop();
    EXPECT_EQ(err.first_line(), "msgrcv Error\xEF\xBC\x9AInvalid argument(22), msgid:" + std::to_string(id));
}

TEST_F(QueueListenerTest, AQueueMadeAnewBySomebodyElseIsNotRemoved) {
    T_MSGQ_service listener(kKey, keep, kBody);
    ASSERT_EQ(msgctl(msgget(kKey, 0), IPC_RMID, nullptr), 0);
    const int other = msgget(kKey, IPC_CREAT | 0600);
    listener.server_stop();
    EXPECT_EQ(msgget(kKey, 0), other);
}

TEST_F(QueueListenerTest, ARecordThatIsTooLongIsReportedAgainAndAgainAndStaysInTheQueue) {
    const stderr_in_file err;
    T_MSGQ_service listener(kKey, keep, kBody);
    listener.server_start();
    ASSERT_TRUE(post(kKey, host_record(1, kBody + 1)));
    ASSERT_TRUE(wait_until([&] { return std::filesystem::file_size(err.path()) > 1000; }));
    EXPECT_EQ(queue_length(kKey), 1);
    EXPECT_EQ(err.first_line(), "msgrcv Error\xEF\xBC\x9A"
                                "Argument list too long(7), msgid:" +
                                    std::to_string(msgget(kKey, 0)));
    listener.server_stop();
    EXPECT_EQ(callbacks_begun, 0);
}

TEST_F(QueueListenerTest, AQueueThatCannotBeHadIsReportedByEveryReceiveUntilTheStop) {
    std::vector<int> all; // the host's limit on queues, reached
    for (int id = 0; (id = msgget(IPC_PRIVATE, 0600)) != -1;) {
        all.push_back(id);
    }
    const stderr_in_file err;
    T_MSGQ_service listener(kKey, keep, kBody);
    EXPECT_TRUE(err.is_empty()) << "the failure itself is not reported";
    EXPECT_EQ(listener.server_start(), 0);
    ASSERT_TRUE(wait_until([&] { return std::filesystem::file_size(err.path()) > 1000; }));
    EXPECT_EQ(err.first_line(), "msgrcv Error\xEF\xBC\x9AInvalid argument(22), msgid:-1");
    EXPECT_EQ(listener.server_stop(), 0);
    for (const int id : all) {
        msgctl(id, IPC_RMID, nullptr);
    }
}

// The blocked signals of each thread of this process, by thread id.
std::map<std::string, unsigned long> blocked_signals() {
    std::map<std::string, unsigned long> masks;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::istringstream status(read_file(task.path() / "status"));
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("SigBlk:", 0) == 0) {
                masks[task.path().filename()] = std::stoul(line.substr(7), nullptr, 16);
            }
        }
    }
    return masks;
}

TEST_F(QueueListenerTest, TheReceivingThreadDoesNotTakeTheStopSignals) {
    std::thread([] {}).join(); // the first thread brings the thread sanitizer's own with it
    sigset_t none;
    sigemptyset(&none);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &none, nullptr), 0); // whatever an earlier test left
    const auto before = blocked_signals();
    T_MSGQ_service listener(kKey, keep, kBody);
    listener.server_start();
    const unsigned long stop_signals = (1UL << (SIGINT - 1)) | (1UL << (SIGTERM - 1));
    size_t found = 0;
    for (const auto& [thread, mask] : blocked_signals()) {
        if (before.count(thread) == 0) {
            EXPECT_EQ(mask & stop_signals, stop_signals);
            ++found;
        } else {
            EXPECT_EQ(mask, before.at(thread)) << "the starting thread's own mask is as before";
        }
    }
    EXPECT_EQ(found, 1U);
    listener.server_stop();
}

TEST_F(QueueListenerTest, SendingToAKeyWithoutAQueueGives101) {
    const host_record record = record_of(1, "x");
    EXPECT_EQ(T_MSGQ_service::send_msg(kKey, record.data(), record.body_size()), 101);
    EXPECT_FALSE(queue_exists(kKey)) << "a producer makes no queue";
}

TEST_F(QueueListenerTest, SendingPostsTheWholeRecord) {
    T_MSGQ_service listener(kKey, keep, kBody);
    const host_record record = record_of(7, "posted");
    EXPECT_EQ(T_MSGQ_service::send_msg(kKey, record.data(), record.body_size()), 0);
    listener.server_start();
    ASSERT_TRUE(wait_until([] { return received_records().size() == 1; }));
    EXPECT_EQ(received_records()[0], whole(7, "posted"));
    listener.server_stop();
}

TEST_F(QueueListenerTest, SendingToAFullQueueGives102WithoutBlocking) {
    T_MSGQ_service listener(kKey, keep, kBody);
    const host_record record = record_of(1, "x");
    int result = 0;
    long sent = -1;
    while (result == 0) {
        result = T_MSGQ_service::send_msg(kKey, record.data(), record.body_size());
        ++sent;
    }
    EXPECT_EQ(result, 102);
    EXPECT_GT(sent, 0);
    EXPECT_EQ(queue_length(kKey), sent);
    EXPECT_TRUE(was_prompt());
    listener.remove_msgq();
}

TEST_F(QueueListenerTest, ARecordThatCannotBeSentGives102) {
    T_MSGQ_service listener(kKey, keep, kBody);
    const host_record record = record_of(0, "type 0 is wrong");
    EXPECT_EQ(T_MSGQ_service::send_msg(kKey, record.data(), record.body_size()), 102);
    listener.remove_msgq();
}

// Puts a filter in front of the kernel for what hardly fails on its own: these system calls end with `error`.
void forbid(std::initializer_list<unsigned> system_calls, unsigned error) {
    std::vector<sock_filter> program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const unsigned number : system_calls) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

TEST_F(QueueListenerTest, ALookUpThatFailsOtherwiseGives100) {
    EXPECT_TRUE(passes_in_own_process([] {
        forbid({SYS_msgget}, EACCES);
        const host_record record = record_of(1, "x");
        EXPECT_EQ(T_MSGQ_service::send_msg(kKey, record.data(), record.body_size()), 100);
    }));
}

// The stop's own record wakes a receive; a callback under way leaves it in the queue, and the next daemon must not find
// it.
TEST_F(QueueListenerTest, StopEndsAndLeavesNoRecordWhereTheQueueCannotBeRemoved) {
    EXPECT_TRUE(passes_in_own_process([] {
        const auto stop = [](T_MSGQ_service* listener) {
            forbid({SYS_msgctl}, EPERM); // for this thread
            listener->server_stop();
        };
        T_MSGQ_service idle(kKey, keep, kBody);
        idle.server_start();
        ASSERT_TRUE(receive_is_entered());
        std::thread(stop, &idle).join();

        T_MSGQ_service busy(kKey, keep, kBody);
        callback_waits = true;
        busy.server_start();
        ASSERT_TRUE(post(kKey, record_of(1, "x")));
        ASSERT_TRUE(wait_until([] { return callbacks_begun == 1; }));
        std::thread stopping(stop, &busy);
        EXPECT_TRUE(wait_until([] { return queue_length(kKey) == 1; }));
        callback_waits = false;
        stopping.join();
        EXPECT_EQ(queue_length(kKey), 0);
        busy.remove_msgq();
    }));
}

TEST_F(QueueListenerTest, OneThatGetsNoThreadStopsAllTheSame) {
    EXPECT_TRUE(passes_in_own_process([] {
        T_MSGQ_service listener(kKey, keep, kBody);
        forbid({SYS_clone, SYS_clone3}, EAGAIN);
        EXPECT_EQ(listener.server_start(), 0);
        EXPECT_EQ(listener.server_stop(), 0);
        EXPECT_FALSE(queue_exists(kKey));
    }));
}

} // namespace
