// The owners: descriptors, streams, temporary files; and the process environment.
#include "argument_vector.h"
#include "environment.h"
#include "interruptions.h"
#include "read_fd.h"
#include "scoped.h"
#include "temp_file.h"
#include "test_files.h"
#include "unique_fd.h"

#include <gmock/gmock.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <type_traits>
#include <utility>

namespace {

bool is_open(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

int open_null() {
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

static_assert(!std::is_copy_constructible_v<unique_fd>);
static_assert(!std::is_convertible_v<int, unique_fd>, "ownership is taken visibly");
static_assert(std::is_nothrow_move_constructible_v<unique_fd>);

TEST(UniqueFdTest, ClosesAtScopeEnd) {
    int number = -1;
    {
        const unique_fd fd(open_null());
        ASSERT_TRUE(fd.ok());
        number = fd.get();
        EXPECT_TRUE(is_open(number));
    }
    EXPECT_FALSE(is_open(number));
    EXPECT_FALSE(unique_fd().ok());
}

TEST(UniqueFdTest, MovesAndReleases) {
    unique_fd first(open_null());
    const int number = first.get();
    unique_fd second(std::move(first));
    EXPECT_EQ(second.get(), number);
    unique_fd third(open_null());
    const int replaced = third.get();
    third = std::move(second);
    EXPECT_FALSE(is_open(replaced));
    EXPECT_EQ(third.release(), number);
    EXPECT_FALSE(third.ok());
    EXPECT_TRUE(is_open(number));
    EXPECT_EQ(::close(number), 0);
}

TEST(UniqueFdTest, KeepsErrno) {
    unique_fd fd(open_null());
    ::close(fd.get());
    errno = ENOTTY;
    fd.reset(); // its close() fails
    EXPECT_EQ(errno, ENOTTY);
}

TEST(UniqueFdTest, LowNumbersAreMovedAboveTheStandardStreams) {
    EXPECT_TRUE(passes_in_own_process([] {
        ASSERT_EQ(::close_range(3, ~0U, 0), 0);
        ::close(0);
        const unique_fd moved = above_standard_streams(unique_fd(open_null()));
        EXPECT_EQ(moved.get(), 3);
        EXPECT_EQ(::fcntl(moved.get(), F_GETFD), FD_CLOEXEC);
        EXPECT_FALSE(is_open(0));
        const int number = moved.get();
        EXPECT_FALSE(above_standard_streams(unique_fd()).ok());
        EXPECT_TRUE(is_open(number));
        const struct rlimit full = {3, 3};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &full), 0);
        EXPECT_FALSE(above_standard_streams(unique_fd(open_null())).ok());
        EXPECT_FALSE(is_open(0));
    }));
}

TEST(ArgumentVectorTest, BaseNamesFollowTheLastSlash) {
    EXPECT_EQ(base_name("/usr/bin/tool"), "tool");
    EXPECT_EQ(base_name("tool"), "tool");
    EXPECT_EQ(base_name("folder/"), "");
    EXPECT_EQ(base_name(nullptr), "");
}

TEST(ScopedTest, EachOwnerEndsWhatItHolds) {
    const unique_dir directory(::opendir("/"));
    ASSERT_TRUE(directory);
    const unique_dl library(::dlopen("libc.so.6", RTLD_NOW));
    ASSERT_TRUE(library);
    const unique_heap<char> block(static_cast<char*>(std::malloc(1)));
    int number = -1;
    {
        const unique_file file(std::fopen("/dev/null", "r"));
        number = ::fileno(file.get());
    }
    EXPECT_FALSE(is_open(number));
    {
        const unique_pipe pipe(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "w", "/bin/cat", nullptr));
        ASSERT_TRUE(pipe);
    }
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "the child has been waited for";
}

TEST(ReadFdTest, ReadsOnAfterASignal) {
    EXPECT_TRUE(passes_in_own_process([] {
        const test_folder folder;
        const std::string script = interruptions(folder / "answers").script() + "echo late";
        std::array<int, 2> ends = {};
        ASSERT_EQ(::pipe(ends.data()), 0);
        const unique_pipe writer(lyn_vexprod_corvo_popen_v2(nullptr,
                                                            ("/proc/self/fd/" + std::to_string(ends[1])).c_str(),
                                                            nullptr, "w", "/bin/sh", "-c", script.c_str(), nullptr));
        ::close(ends[1]);
        EXPECT_EQ(read_to_end(ends[0], 100), "late\n");
        EXPECT_EQ(read_to_end(-1, 100), "") << "an error ends the text";
    }));
}

TEST(TempFileTest, IsFreshPrivateAndRemovedAtScopeEnd) {
    std::string path;
    {
        const temp_file file;
        ASSERT_TRUE(file.ok());
        path = file.path();
        EXPECT_THAT(path, testing::MatchesRegex("/tmp/vexprod-......"));
        struct stat status = {};
        ASSERT_EQ(::stat(file.path(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0600U);
        EXPECT_EQ(status.st_size, 0);
        EXPECT_STRNE(temp_file().path(), file.path());
    }
    EXPECT_FALSE(file_exists(path));
}

TEST(TempFileTest, ReadsWholeOrTheBeginning) {
    const temp_file file;
    EXPECT_EQ(file.read_all(), "");
    const std::string content = std::string(10000, 'a') + '\0' + "end";
    write_file(file.path(), content);
    EXPECT_EQ(file.read_all(), content);
    EXPECT_EQ(file.read_at_most(5), "aaaaa");
    EXPECT_EQ(file.read_at_most(0), "");
    EXPECT_EQ(file.read_at_most(100000), content);
}

TEST(TempFileTest, ReadsNoFurtherThanTheFileReachesNow) {
    EXPECT_TRUE(passes_in_own_process([] {
        temp_file file;
        ASSERT_EQ(file.remove(), 0);
        ASSERT_EQ(::mkfifo(file.path(), 0600), 0); // has no size, and no end while somebody may write
        const unique_fd writer(::open(file.path(), O_RDWR | O_CLOEXEC));
        EXPECT_EQ(file.read_all(), "");
        EXPECT_EQ(file.remove(), 0);
    }));
}

TEST(TempFileTest, RemovesWithAStatus) {
    temp_file file;
    EXPECT_EQ(file.remove(), 0);
    EXPECT_FALSE(file_exists(file.path()));
    EXPECT_EQ(file.read_all(), "");
    errno = 0;
    EXPECT_EQ(file.remove(), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(TempFileTest, FilesThatItDoesNotOwnStay) {
    std::string path;
    {
        temp_file file;
        path = file.release();
        EXPECT_EQ(path, file.path());
    }
    EXPECT_TRUE(file_exists(path));
    EXPECT_EQ(::unlink(path.c_str()), 0);
    {
        temp_file file;
        path = file.path();
        EXPECT_EQ(file.remove(), 0);
        write_file(path, "another's");
    }
    EXPECT_TRUE(file_exists(path));
    EXPECT_EQ(::unlink(path.c_str()), 0);
}

TEST(TempFileTest, MovesItsOwnership) {
    temp_file first;
    const std::string path = first.path();
    temp_file second(std::move(first));
    EXPECT_EQ(path, second.path());
    temp_file third;
    const std::string replaced = third.path();
    third = std::move(second);
    EXPECT_FALSE(file_exists(replaced));
    EXPECT_TRUE(file_exists(path));
    EXPECT_EQ(path, third.path());
    temp_file& itself = third;
    third = std::move(itself);
    EXPECT_TRUE(file_exists(path));
}

TEST(TempFileTest, WithoutAFileNothingCanBeOpened) {
    EXPECT_TRUE(passes_in_own_process([] {
        struct rlimit before = {};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
        const struct rlimit no_more = {0, before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &no_more), 0);
        const temp_file file;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
        EXPECT_FALSE(file.ok());
        EXPECT_STREQ(file.path(), "");
        EXPECT_EQ(file.read_all(), "");
        EXPECT_EQ(lyn_vexprod_corvo_exec(file.path(), nullptr, nullptr, "/bin/true", nullptr), -1);
    }));
}

TEST(EnvironmentTest, SetsUnsetsAndCopies) {
    ASSERT_EQ(environment_set("VEXPROD_ONE", "1"), 0);
    ASSERT_EQ(environment_set("VEXPROD_ONE", "2"), 0);
    ASSERT_EQ(environment_set("VEXPROD_ONE_MORE", "3"), 0);
    EXPECT_EQ(environment_set("", "x"), -1);
    const auto entries = [](const environment_snapshot& snapshot) {
        std::vector<std::string> texts;
        for (char* const* entry = snapshot.envp(); *entry != nullptr; ++entry) {
            texts.emplace_back(*entry);
        }
        return texts;
    };
    const auto with = environment_snapshot::own_without("VEXPROD_OTHER");
    const auto without = environment_snapshot::own_without("VEXPROD_ONE");
    EXPECT_THAT(entries(with), testing::IsSupersetOf({"VEXPROD_ONE=2", "VEXPROD_ONE_MORE=3"}));
    EXPECT_THAT(entries(without), testing::Contains("VEXPROD_ONE_MORE=3"));
    EXPECT_THAT(entries(without), testing::Not(testing::Contains("VEXPROD_ONE=2")));
    EXPECT_THAT(entries(environment_snapshot::empty()), testing::IsEmpty());

    ASSERT_EQ(environment_unset("VEXPROD_ONE"), 0);
    EXPECT_EQ(::getenv("VEXPROD_ONE"), nullptr);
    EXPECT_THAT(entries(with), testing::Contains("VEXPROD_ONE=2")) << "a copy does not change";
    EXPECT_THAT(entries(environment_snapshot::own_without("X")), testing::Not(testing::Contains("VEXPROD_ONE=2")));
}

TEST(EnvironmentTest, MayBeGone) {
    EXPECT_TRUE(passes_in_own_process([] {
        ASSERT_EQ(::clearenv(), 0);
        ASSERT_EQ(::environ, nullptr);
        EXPECT_EQ(*environment_snapshot::own_without("X").envp(), nullptr);
    }));
}

TEST(EnvironmentTest, TheLockIsNeverWaitedFor) {
    const auto held = environment_try_lock();
    ASSERT_TRUE(held);
    bool second_owns = true;
    std::thread([&] { second_owns = static_cast<bool>(environment_try_lock()); }).join();
    EXPECT_FALSE(second_owns);
}

} // namespace
