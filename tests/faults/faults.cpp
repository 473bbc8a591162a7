#include "faults.h"

#include "failing_calls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace faults {

using namespace std::chrono_literals;

namespace {

// A function and the errors that the kernel gives there. What cannot fail as it is called here is not listed: lseek(2)
// on a memory file, shutdown(2) on a local socket.
struct failing_function {
    const char* name;
    std::vector<int> errors;
};

const std::vector<failing_function> kFunctions = {
    {"malloc", {ENOMEM}},
    {"calloc", {ENOMEM}},
    {"realloc", {ENOMEM}},
    {"mmap", {ENOMEM}},
    {"memfd_create", {EMFILE, ENOMEM}},
    {"ftruncate", {ENOMEM}},
    {"socket", {EMFILE, ENOBUFS}},
    {"socketpair", {EMFILE, ENOMEM}},
    {"bind", {EADDRINUSE, ENOSPC}},
    {"listen", {EADDRINUSE}},
    {"accept4", {EMFILE, ENOMEM, ECONNABORTED, EINTR}},
    {"connect", {EAGAIN, ECONNREFUSED, EINTR}},
    {"setsockopt", {ENOMEM}},
    {"getsockopt", {ENOBUFS}},
    {"send", {EAGAIN, EPIPE, ENOBUFS, EINTR}},
    {"recv", {ECONNRESET, EINTR}},
    {"sendmsg", {ENOMEM, EPIPE, EINTR}},
    {"recvmsg", {ECONNRESET, EINTR}},
    {"sendmmsg", {EAGAIN, EPIPE, ETOOMANYREFS}},
    {"poll", {EINTR}},
    {"epoll_create", {EMFILE, ENOMEM}},
    {"epoll_ctl", {ENOMEM, ENOSPC}},
    {"epoll_wait", {EINTR}},
    {"read", {EIO, EINTR}},
    {"pread", {EIO}},
    {"write", {ENOSPC, EIO}},
    {"splice", {ENOMEM}},
    {"dprintf", {ENOSPC}},
    {"vdprintf", {ENOSPC}},
    {"fstat", {EIO}},
    {"stat", {EACCES}},
    {"lstat", {EACCES}},
    {"chmod", {EPERM}},
    {"mkdir", {ENOSPC}},
    {"unlink", {EACCES}},
    {"rename", {ENOSPC}},
    {"mkostemp", {EMFILE, ENOSPC}},
    {"open", {EMFILE, EACCES}},
    {"close", {EIO, EINTR}},
    {"fopen", {EMFILE, ENOMEM}},
    {"freopen", {EMFILE}},
    {"fdopen", {ENOMEM}},
    {"fclose", {ENOSPC}},
    {"fflush", {ENOSPC}},
    {"opendir", {EMFILE}},
    {"fcntl", {EMFILE}},
    {"ioctl", {ENOTTY}},
    {"pipe2", {EMFILE, ENFILE}},
    {"dup", {EMFILE}},
    {"dup2", {EBUSY}},
    {"dup3", {EBUSY}},
    {"close_range", {ENOSYS}},
    {"fork", {EAGAIN, ENOMEM}},
    {"vfork", {EAGAIN, ENOMEM}},
    {"execve", {ENOENT, ENOMEM}},
    {"pidfd_open", {ENOSYS, EMFILE}},
    {"waitpid", {ECHILD, EINTR}},
    {"pthread_create", {EAGAIN}},
    {"setrlimit", {EPERM}},
    {"setenv", {ENOMEM}},
    {"dlopen", {ENOMEM}},
    {"msgget", {ENOSPC, EACCES}},
    {"msgrcv", {EINTR}},
    {"msgsnd", {EAGAIN, EIDRM}},
    {"msgctl", {EPERM}},
    {"backtrace_symbols", {ENOMEM}},
};

// What the process may end with when resources are exhausted, see kservice.h, by the function that has failed:
// "[ABORT] @" and this, and then the condition.
struct last_words {
    const char* function;
    const char* words;
};

const std::vector<last_words> kLastWords = {
    {"malloc", "ks_ez_call() cannot realloc recv memory"},
    {"calloc", "ks_io_create() alloc ks_io memory fail"},
    {"calloc", "ks_create() alloc ks_handle memory fail"},
    {"calloc", "ks_start() alloc worker memory fail"},
    {"calloc", "ks_start() producer-worker create thread fail"}, // a thread's own data
    {"calloc", "ks_consumer_worker_init() consumer-worker create thread fail"},
    {"calloc", "ks_epoll_create() alloc epoll memory fail"},
    {"mmap", "ks_start() alloc worker memory fail"},
    {"mmap", "ks_io_realloc() create memory map fail"},
    {"mmap", "ks_io_sync() create memory map fail"},
    {"memfd_create", "ks_io_shm() create share memory file fail"},
    {"ftruncate", "ks_io_realloc() ftruncate memory file fail"},
    {"socket", "ks_epoll_call() create request socket fail"},
    {"socket", "ks_producer_worker_init() producer-worker create listen socket fail"},
    {"bind", "ks_producer_worker_init() producer-worker bind listen socket fail"},
    {"listen", "ks_producer_worker_init() producer-worker listen socket fail"},
    {"chmod", "ks_producer_worker_init() producer-worker change socket file mode fail"},
    {"epoll_create", "ks_producer_worker_init() producer-worker create epoll fail"},
    {"epoll_create", "ks_epoll_create() create request epoll fail"},
    {"epoll_ctl", "ks_start() producer-worker epoll add listen sockfd fail"},
    {"epoll_ctl", "ks_consumer_worker_init() producer-worker epoll add consumer-worker sockfd fail"},
    {"epoll_ctl", "ks_epoll_call() epoll add request sockfd fail"},
    {"socketpair", "ks_consumer_worker_init() consumer-worker create sockets fail"},
    {"pthread_create", "ks_start() producer-worker create thread fail"},
    {"pthread_create", "ks_consumer_worker_init() consumer-worker create thread fail"},
    {"fork", "ks_consumer_worker_init() consumer-worker create process fail"},
    {"fcntl", "ks_producer_worker_init() producer-worker create listen socket fail"},
    {"fcntl", "ks_producer_worker_init() producer-worker create epoll fail"},
    {"fcntl", "ks_consumer_worker_init() consumer-worker create sockets fail"},
    {"fcntl", "ks_epoll_create() create request epoll fail"},
    {"recv", "ks_producer_worker() producer-worker receive consumer_worker directive fail"},
};

bool are_last_words(const char* function, const std::string& said) {
    return std::any_of(kLastWords.begin(), kLastWords.end(), [&](const last_words& each) {
        return std::string_view(each.function) == function &&
               said.find("[ABORT] @" + std::string(each.words) + ": `") != std::string::npos;
    });
}

struct point {
    const char* function;
    int error;
    unsigned nth;
    bool for_good;
};

// What a point's process tells, in memory that it shares with the test's.
struct report {
    bool finished; // it has come to its end
    unsigned failed;
    char outcome[512];
    char wrong[512];
    std::array<unsigned, 256> calls; // of each of kFunctions, see count_calls()
};

report* shared_report() {
    static void* const memory =
        mmap(nullptr, sizeof(report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<report*>(memory);
}

struct belongings {
    std::size_t descriptors;
    std::size_t threads;
    std::size_t temporary_files;
    long blocks;

    bool operator<=(const belongings& other) const {
        return descriptors <= other.descriptors && threads <= other.threads &&
               temporary_files <= other.temporary_files && blocks <= other.blocks;
    }
    [[nodiscard]] std::string text() const {
        return std::to_string(descriptors) + " descriptors, " + std::to_string(threads) + " threads, " +
               std::to_string(temporary_files) + " temporary files, " + std::to_string(blocks) + " blocks";
    }
};

std::size_t entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

belongings look() {
    const long blocks = blocks_in_use();
    return {entries("/proc/self/fd"), entries("/proc/self/task"), entries("/tmp"), blocks};
}

// Waits until `condition` holds. @return False = it did not within `patience`.
bool comes(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
    const auto give_up_at = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > give_up_at) {
            return false;
        }
        usleep(200);
    }
    return true;
}

belongings settled() {
    belongings last = look();
    comes(
        [&last] {
            usleep(100); // what the last action left to other threads takes no longer; if it does, a loss is overlooked
            const belongings now = look();
            const bool same = now <= last && last <= now;
            last = now;
            return same;
        },
        1s);
    return last;
}

// Ends the process: the point is not as it should be.
[[noreturn]] void give_up(const std::string& why) {
    (void)snprintf(shared_report()->wrong, sizeof(report::wrong), "%s", why.c_str());
    _exit(1);
}

void call_if(const std::function<void()>& step) {
    if (step) {
        step();
    }
}

void act_undisturbed(const scenario& what, const char* when) {
    call_if(what.prepare);
    what.act();
    const std::string found = what.judge();
    if (found != kDone) {
        give_up(std::string(when) + " the fault: " + found);
    }
}

// Whether everything is as before once the fault is over.
bool leaves_nothing(const scenario& what, const point& at, std::chrono::milliseconds patience,
                    std::string* ret_difference) {
    const belongings before = settled();
    call_if(what.prepare);
    fail_calls(at.function, at.error, at.nth, at.for_good ? 1 : 0);
    what.act();
    shared_report()->failed = stop_failing();
    (void)snprintf(shared_report()->outcome, sizeof(report::outcome), "%s", what.judge().c_str());
    act_undisturbed(what, "after");
    belongings after = {};
    if (comes([&] { return (after = look()) <= before; }, patience)) {
        return true;
    }
    *ret_difference = after.text() + "; before: " + before.text();
    return false;
}

void live_through(const scenario& what, const point& at) {
    call_if(what.begin);
    act_undisturbed(what, "before");
    // What a library keeps from its first error is kept once; what is lost, each time.
    std::string difference;
    if (!leaves_nothing(what, at, 200ms, &difference) && !leaves_nothing(what, at, 20s, &difference)) {
        give_up("left behind: " + difference);
    }
    call_if(what.end);
    if (waitpid(-1, nullptr, WNOHANG) != -1) {
        give_up("a child was left behind");
    }
}

// How often the action calls each function.
void count_calls(const scenario& what) {
    call_if(what.begin);
    act_undisturbed(what, "before");
    for (std::size_t i = 0; i < kFunctions.size(); ++i) {
        call_if(what.prepare);
        fail_calls(kFunctions[i].name, 0, UINT_MAX, 0);
        what.act();
        (void)stop_failing();
        (void)what.judge();
        shared_report()->calls[i] = calls_seen();
    }
    call_if(what.end);
}

// Runs `body` in a process of its own. @return Its wait status; what it said on standard error in `ret_said`.
int in_own_process(const std::function<void()>& body, std::string* ret_said) {
    constexpr unsigned kLimitSeconds = 60;
    *shared_report() = {};
    const int error_output = memfd_create("stderr", MFD_CLOEXEC);
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        dup2(error_output, STDERR_FILENO);
        alarm(kLimitSeconds);
        body();
        shared_report()->finished = true;
        _exit(0);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    std::array<char, 4096> said{};
    const ssize_t size = pread(error_output, said.data(), said.size(), 0);
    ret_said->assign(said.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    close(error_output);
    return status;
}

// Whoever was interrupted can go on waiting, and a connection that was reset is at its end with the next call.
bool comes_once(int error) {
    return error == EINTR || error == ECONNRESET || error == ECONNABORTED;
}

struct tally {
    unsigned points = 0;
    unsigned done = 0;
    unsigned other = 0;
    unsigned aborted = 0;
};

bool is_documented(const scenario& what, const point& at, std::string_view text) {
    return std::any_of(what.outcomes.begin(), what.outcomes.end(), [&](const outcome& each) {
        return each.text == text && (each.function == nullptr || std::string_view(each.function) == at.function);
    });
}

// @return Whether the point was there: the action made so many calls.
bool run_point(const scenario& what, const point& at, tally* sum) {
    std::string said;
    const int status = in_own_process([&] { live_through(what, at); }, &said);
    const report& told = *shared_report();
    if (told.finished && told.failed == 0) {
        return false;
    }
    ++sum->points;
    const std::string where = what.name + ": " + at.function + " " + strerrorname_np(at.error) + " at call " +
                              std::to_string(at.nth) + (at.for_good ? " and from there on" : "");
    const bool aborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    if (aborted || (told.finished && std::string_view(told.outcome) == kAborted)) {
        ++sum->aborted;
        EXPECT_TRUE(are_last_words(at.function, said)) << where << ": aborted with: " << said << told.wrong;
    } else if (!told.finished) {
        ADD_FAILURE() << where << ": status " << status << ", " << told.outcome << "; " << told.wrong << "; said "
                      << said;
    } else if (std::string_view(told.outcome) == kDone) {
        ++sum->done;
    } else {
        ++sum->other;
        EXPECT_TRUE(is_documented(what, at, told.outcome)) << where << ": " << told.outcome;
    }
    return true;
}

// How many points of each function are looked at: FAULTS_POINTS in the environment, 0 for all.
unsigned most_points() {
    constexpr unsigned kFew = 3;
    const char* const given = getenv("FAULTS_POINTS");
    return given == nullptr ? kFew : static_cast<unsigned>(strtoul(given, nullptr, 10));
}

// The points of one function, or a few evenly over those that there were when they were counted.
void run_points(const scenario& what, const char* function, int error, unsigned calls, tally* sum) {
    const unsigned most = most_points();
    const unsigned step = most == 0 ? 1 : std::max(1U, calls / most);
    for (const bool for_good : {false, true}) {
        if (for_good && comes_once(error)) {
            continue;
        }
        unsigned nth = 1;
        while ((most == 0 || nth <= calls) && run_point(what, {function, error, nth, for_good}, sum)) {
            nth += step;
        }
    }
}

} // namespace

siginfo_t run_in_child(const std::function<void()>& body) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t pid = _Fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        [&body]() noexcept { body(); }(); // as main() is where an exception is concerned
        _exit(0);
    }
    siginfo_t end = {};
    while (waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED) != 0 && errno == EINTR) {
    }
    return end;
}

void run(const scenario& what) {
    std::string said;
    const int status = in_own_process([&] { count_calls(what); }, &said);
    ASSERT_EQ(status, 0) << what.name << ": " << shared_report()->wrong << "; said " << said;
    const std::array<unsigned, 256> calls = shared_report()->calls;
    for (std::size_t i = 0; i < kFunctions.size(); ++i) {
        for (const int error : kFunctions[i].errors) {
            if (calls[i] == 0) {
                continue;
            }
            tally sum;
            run_points(what, kFunctions[i].name, error, calls[i], &sum);
            (void)printf("fault %s %s %s %u %u %u %u\n", what.name.c_str(), kFunctions[i].name, strerrorname_np(error),
                         sum.points, sum.done, sum.other, sum.aborted);
            (void)fflush(stdout); // or each process to come would print it again
        }
    }
}

} // namespace faults
