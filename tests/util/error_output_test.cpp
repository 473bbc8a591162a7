// What is said on standard error: in one piece, and never at the price of waiting for its reader.
#include "error_output.h"
#include "unique_fd.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

// Standard error is a pipe that only the test reads.
class ErrorOutputTest : public testing::Test {
protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        reader = unique_fd(ends[0]);
        const unique_fd writer(ends[1]);
        before = unique_fd(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
        ASSERT_EQ(::dup2(writer.get(), STDERR_FILENO), STDERR_FILENO);
    }
    void TearDown() override { ASSERT_EQ(::dup2(before.get(), STDERR_FILENO), STDERR_FILENO); }

    // What the pipe holds now.
    [[nodiscard]] std::string held() const {
        EXPECT_EQ(::fcntl(reader.get(), F_SETFL, O_NONBLOCK), 0);
        std::string text;
        char block[4096];
        for (ssize_t got = 0; (got = ::read(reader.get(), block, sizeof block)) > 0;) {
            text.append(block, static_cast<size_t>(got));
        }
        return text;
    }

    unique_fd reader;
    unique_fd before;
};

TEST_F(ErrorOutputTest, WritesWhatItIsTold) {
    errno = ENOENT;
    print_error("msgid:%d, %s\n", 7, "text");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(held(), "msgid:7, text\n");
    print_error("%s", "");
    EXPECT_EQ(held(), "");
}

TEST_F(ErrorOutputTest, CutsALongText) {
    print_error("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(held(), std::string(1023, 'x'));
}

TEST_F(ErrorOutputTest, APipeThatNobodyEmptiesCostsLinesAndNotTime) {
    const int size = ::fcntl(STDERR_FILENO, F_GETPIPE_SZ);
    ASSERT_GT(size, 0);
    const std::string line = std::string(99, 'x') + "\n";
    (void)::alarm(20); // a call that waits would wait for ever
    for (int said = 0; said < 2 * size; said += static_cast<int>(line.size())) {
        print_error("%s", line.c_str());
    }
    (void)::alarm(0);
    const std::string text = held();
    EXPECT_LE(text.size(), static_cast<size_t>(size));
    EXPECT_GT(text.size(), static_cast<size_t>(size) / 2);
    EXPECT_EQ(text.size() % line.size(), 0U) << "whole lines only";
    print_error("%s", "again\n");
    EXPECT_EQ(held(), "again\n");
}

TEST_F(ErrorOutputTest, WithoutAReaderOrWithoutAnOutputTheTextIsLost) {
    const auto before_action = ::signal(SIGPIPE, SIG_IGN);
    reader.reset();
    errno = ENOENT;
    print_error("%s", "lost");
    EXPECT_EQ(errno, ENOENT);
    (void)::signal(SIGPIPE, before_action);
    ASSERT_EQ(::close(STDERR_FILENO), 0);
    print_error("%s", "lost as well");
}

} // namespace
