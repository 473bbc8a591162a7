// What a child is given, and that making one is safe beside busy threads.
#include "descriptor_limit.h"
#include "environment.h"
#include "forbid_system_call.h"
#include "log.h"
#include "runner.h"
#include "scoped.h"
#include "test_files.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sstream>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

namespace {

std::string line_of(const std::string& report, const std::string& key) {
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(key + "=", 0) == 0) {
            return line.substr(key.size() + 1);
        }
    }
    return "no line " + key;
}

std::string read_stream(FILE* stream) {
    std::string text;
    std::array<char, 256> chunk;
    for (std::size_t count = 0; (count = std::fread(chunk.data(), 1, chunk.size(), stream)) > 0;) {
        text.append(chunk.data(), count);
    }
    return text;
}

class ChildTest : public testing::Test {
protected:
    test_folder folder;
    const std::string out = folder / "out";

    std::string run_report() const {
        EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, nullptr, CHILD_PROBE, "report", nullptr), 0);
        return read_file(out);
    }

    // Opens many descriptors that a careless child would inherit, and leaves some lower numbers free.
    static void open_inheritable_descriptors() {
        const int lowest = ::dup(0);
        for (int i = 0; i < 300; ++i) {
            ASSERT_GE(::open("/dev/null", O_RDONLY), 0);
        }
        for (int i = 0; i < 3; ++i) {
            ::close(lowest + i);
        }
    }
};

TEST_F(ChildTest, HasTheStandardDescriptorsAndNoOther) {
    EXPECT_TRUE(passes_in_own_process([&] {
        open_inheritable_descriptors();
        EXPECT_EQ(line_of(run_report(), "fds"), "0 1 2 ");
        const unique_pipe other(
            lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "w", CHILD_PROBE, "drain", nullptr));
        const unique_pipe reader(
            lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "report", nullptr));
        EXPECT_EQ(line_of(read_stream(reader.get()), "fds"), "0 1 2 ");
    }));
}

TEST_F(ChildTest, HasNoOtherDescriptorsOnAnOldKernelEither) {
    EXPECT_TRUE(passes_in_own_process([&] {
        open_inheritable_descriptors();
        forbid_system_call(SYS_close_range); // as before 5.9
        ASSERT_EQ(::close_range(9000, 9000, 0), -1);
        EXPECT_EQ(line_of(run_report(), "fds"), "0 1 2 ");
        struct rlimit limit = {}; // and when no number is free any more
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        const int first_free = ::dup(0);
        ::close(first_free);
        limit.rlim_cur = static_cast<rlim_t>(first_free) + 2; // just enough for the two outputs
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), nullptr, nullptr, CHILD_PROBE, "report", nullptr), 0);
        limit.rlim_cur = limit.rlim_max;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(line_of(read_file(out), "fds"), "0 1 2 ");
    }));
}

TEST_F(ChildTest, HasNoneOfTheRunnersDescriptorsWhereNothingClosesThem) {
    write_file(folder / "in", "");
    EXPECT_TRUE(passes_in_own_process([&] {
        for (int fd = 3; fd < 1024; ++fd) {
            ::close(fd); // the test's own
        }
        forbid_system_call(SYS_close_range);
        forbid_system_call(SYS_getdents64);
        const unique_pipe other(
            lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "w", CHILD_PROBE, "drain", nullptr));
        ASSERT_TRUE(other);
        EXPECT_EQ(lyn_vexprod_corvo_exec_v2((folder / "in").c_str(), out.c_str(), (folder / "err").c_str(),
                                            (folder / "trace").c_str(), CHILD_PROBE, "report", nullptr),
                  0);
        EXPECT_EQ(line_of(read_file(out), "fds"), "0 1 2 ");
        EXPECT_EQ(lyn_vexprod_corvo_exec(out.c_str(), out.c_str(), nullptr, CHILD_PROBE, "report", nullptr), 0);
        EXPECT_EQ(line_of(read_file(out), "fds"), "0 1 2 ");
        EXPECT_EQ(lyn_vexprod_corvo_exec(nullptr, out.c_str(), nullptr, "/bin/sh", "-c", "exec \"$0\" report >&2",
                                         CHILD_PROBE, nullptr),
                  0);
        EXPECT_EQ(line_of(read_file(out), "fds"), "0 1 2 ");
        const unique_pipe reader(
            lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "report", nullptr));
        EXPECT_EQ(line_of(read_stream(reader.get()), "fds"), "0 1 2 ");
    }));
}

// One row: the standard descriptors that the process itself has closed.
class ClosedStreamsTest : public ChildTest, public testing::WithParamInterface<std::vector<int>> {};

TEST_P(ClosedStreamsTest, TheCallsWorkAllTheSame) {
    write_file(folder / "in", "input\n");
    EXPECT_TRUE(passes_in_own_process([&] {
        bool has_input = true;
        for (const int fd : GetParam()) {
            ::close(fd);
            has_input = has_input && fd != 0;
        }
        EXPECT_EQ(line_of(run_report(), "fds"), has_input ? "0 1 2 " : "1 2 ");

        const std::string both = folder / "both";
        EXPECT_EQ(lyn_vexprod_corvo_exec(both.c_str(), both.c_str(), (folder / "trace").c_str(), CHILD_PROBE, "both",
                                         nullptr),
                  0);
        EXPECT_EQ(read_file(both), "out1\nerr1\nout2\nerr2\n");
        EXPECT_EQ(lyn_vexprod_corvo_exec_v2((folder / "in").c_str(), out.c_str(), nullptr, nullptr, CHILD_PROBE, "copy",
                                            nullptr),
                  0);
        EXPECT_EQ(read_file(out), "input\n");

        unique_pipe reader(
            lyn_vexprod_corvo_popen_v2((folder / "in").c_str(), nullptr, nullptr, "r", CHILD_PROBE, "copy", nullptr));
        ASSERT_TRUE(reader);
        EXPECT_EQ(read_stream(reader.get()), "input\n");
        unique_pipe writer(
            lyn_vexprod_corvo_popen_v2(nullptr, out.c_str(), nullptr, "w", CHILD_PROBE, "copy", nullptr));
        ASSERT_TRUE(writer);
        std::fputs("written\n", writer.get());
        EXPECT_EQ(lyn_vexprod_corvo_pclose(writer.release()), 0);
        EXPECT_EQ(read_file(out), "written\n");
        for (const int fd : GetParam()) {
            EXPECT_EQ(::fcntl(fd, F_GETFD), -1) << "nothing of ours is left on a standard number: " << fd;
        }
    }));
}

INSTANTIATE_TEST_SUITE_P(, ClosedStreamsTest,
                         testing::Values(std::vector<int>{0}, std::vector<int>{1}, std::vector<int>{2},
                                         std::vector<int>{0, 1}, std::vector<int>{1, 2}, std::vector<int>{0, 2},
                                         std::vector<int>{0, 1, 2}));

TEST_F(ChildTest, HasNoSignalIgnoredOrBlocked) {
    EXPECT_TRUE(passes_in_own_process([&] {
        ::signal(SIGPIPE, SIG_IGN);
        ::signal(SIGHUP, SIG_IGN);
        ::signal(SIGRTMIN + 3, SIG_IGN);
        ::signal(SIGRTMAX, SIG_IGN);
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTERM);
        sigaddset(&blocked, SIGUSR2);
        ASSERT_EQ(::sigprocmask(SIG_BLOCK, &blocked, nullptr), 0);
        const std::string report = run_report();
        EXPECT_EQ(line_of(report, "SigIgn"), "0000000000000000");
        EXPECT_EQ(line_of(report, "SigBlk"), "0000000000000000");

        sigset_t mask;
        ASSERT_EQ(::sigprocmask(SIG_BLOCK, nullptr, &mask), 0);
        EXPECT_EQ(sigismember(&mask, SIGTERM), 1) << "the caller keeps its own mask";
        EXPECT_EQ(sigismember(&mask, SIGINT), 0);
        struct sigaction action = {};
        ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, SIG_IGN) << "and its own dispositions";
    }));
}

TEST_F(ChildTest, RunsNoHandlerOfItsParent) {
    EXPECT_TRUE(passes_in_own_process([] {
        static const pid_t parent = ::getpid();
        static std::atomic<bool> ran_in_a_child{false}; // which shares the memory
        struct sigaction action = {};
        action.sa_handler = [](int) {
            if (::syscall(SYS_getpid) != parent) {
                ran_in_a_child = true;
            }
        };
        ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
        ASSERT_EQ(::setpgid(0, 0), 0); // a group of its own, with its children
        std::atomic<bool> finished{false};
        std::thread sender([&] {
            while (!finished) {
                ::kill(0, SIGUSR1);
            }
        });
        for (int i = 0; i < 200; ++i) {
            (void)lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/bin/true", nullptr);
        }
        finished = true;
        sender.join();
        EXPECT_FALSE(ran_in_a_child);
    }));
}

TEST_F(ChildTest, HasTheLimitThatTheDaemonWasStartedWith) {
    EXPECT_TRUE(passes_in_own_process([&] {
        const struct rlimit start = {200, 700};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &start), 0);
        EXPECT_EQ(line_of(run_report(), "nofile"), "200");
        struct rlimit limit = {1, 2};
        EXPECT_FALSE(original_descriptor_limit(&limit));
        EXPECT_EQ(limit.rlim_cur, 1U) << "untouched";

        raise_descriptor_limit();
        raise_descriptor_limit();
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        EXPECT_EQ(limit.rlim_cur, 700U);
        ASSERT_TRUE(original_descriptor_limit(&limit));
        EXPECT_EQ(limit.rlim_cur, 200U);
        EXPECT_EQ(limit.rlim_max, 700U);
        EXPECT_EQ(line_of(run_report(), "nofile"), "200");

        const struct rlimit lowered = {100, 100};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
        ASSERT_TRUE(original_descriptor_limit(&limit));
        EXPECT_EQ(limit.rlim_cur, 100U) << "never above the hard limit";
    }));
}

TEST_F(ChildTest, KeepsTheDaemonsLimitWhenItCouldNotBeRaised) {
    EXPECT_TRUE(passes_in_own_process([] {
        forbid_system_call(SYS_prlimit64);
        raise_descriptor_limit();
        struct rlimit limit = {};
        EXPECT_FALSE(original_descriptor_limit(&limit));
    }));
}

TEST_F(ChildTest, LeavesNoDescriptorAndNoChildBehind) {
    const auto count_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = count_descriptors();
    for (int i = 0; i < 5; ++i) {
        (void)run_report();
        (void)lyn_vexprod_corvo_exec(nullptr, nullptr, (folder / "t").c_str(), "/no/such/program", nullptr);
        (void)lyn_vexprod_corvo_exec_v2("/no/such/file", nullptr, nullptr, nullptr, CHILD_PROBE, nullptr);
        (void)lyn_vexprod_corvo_exec((folder / "x/y").c_str(), nullptr, nullptr, CHILD_PROBE, nullptr);
        (void)lyn_vexprod_corvo_popen_v2("/no/such/file", nullptr, nullptr, "r", CHILD_PROBE, nullptr);
        const unique_pipe pipe(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", "/no/such/program", nullptr));
        (void)read_output(pipe.get());
    }
    EXPECT_EQ(count_descriptors(), before);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// Eight threads make children while others hold every lock that a careless child could need.
TEST_F(ChildTest, ManyThreadsMakeChildrenWhileOthersLogAllocateAndChangeTheEnvironment) {
    EXPECT_TRUE(passes_in_own_process([&] { // its deadline catches a child that hangs
        ::alarm(300);                       // hundreds of them take long under emulation on a busy machine
        log_set_dir(folder.path().c_str());
        std::atomic<bool> finished{false};
        std::vector<std::thread> busy;
        busy.emplace_back([&] {
            for (int i = 0; !finished; ++i) {
                dbg_printf2("[%s][%d] line %d", "busy", __LINE__, i);
            }
        });
        busy.emplace_back([&] {
            for (std::size_t i = 0; !finished; ++i) {
                const auto block = std::make_unique<std::vector<char>>(i * 97 % 100000 + 1);
            }
        });
        busy.emplace_back([&] {
            for (int i = 0; !finished; ++i) {
                EXPECT_EQ(environment_set(("VARIABLE" + std::to_string(i % 50)).c_str(), "value"), 0);
                EXPECT_EQ(environment_unset(("VARIABLE" + std::to_string((i + 25) % 50)).c_str()), 0);
            }
        });
        std::vector<std::thread> runners;
        runners.reserve(8);
        for (int thread = 0; thread < 8; ++thread) {
            runners.emplace_back([&, thread] {
                const std::string own_file = folder / ("out" + std::to_string(thread));
                for (int i = 0; i < 15; ++i) {
                    const std::string status = std::to_string(thread * 16 + i);
                    EXPECT_EQ(
                        lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, CHILD_PROBE, "exit", status.c_str(), nullptr),
                        (thread * 16 + i) << 8);
                    EXPECT_EQ(lyn_vexprod_corvo_exec_v2(nullptr, own_file.c_str(), nullptr, nullptr, CHILD_PROBE,
                                                        "print", status.c_str(), nullptr),
                              0);
                    EXPECT_EQ(read_file(own_file), status);
                    FILE* stream = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", CHILD_PROBE, "print",
                                                              status.c_str(), nullptr);
                    ASSERT_NE(stream, nullptr);
                    EXPECT_EQ(read_stream(stream), status);
                    EXPECT_EQ(lyn_vexprod_corvo_pclose(stream), 0);
                }
            });
        }
        for (std::thread& runner : runners) {
            runner.join();
        }
        finished = true;
        for (std::thread& thread : busy) {
            thread.join();
        }
    }));
}

} // namespace
