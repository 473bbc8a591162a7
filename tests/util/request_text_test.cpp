// Reading a request's text from memory files of every kind that a caller may send.
#include "json_helpers.h"
#include "unique_fd.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t k16MiB = 16777216;

// A request as a worker holds it: the received memory file, with the size at which it was mapped.
class RequestTextTest : public testing::Test {
protected:
    RequestTextTest() : file(::memfd_create("request", MFD_CLOEXEC)) {
        io.magic = KS_IO_MAGIC;
        io.memfd = file.get();
    }

    void put(const std::string& text, off_t offset = 0) {
        ASSERT_EQ(::pwrite(file.get(), text.data(), text.size(), offset), static_cast<ssize_t>(text.size()));
        take_size();
    }

    void take_size() {
        struct stat status = {};
        ASSERT_EQ(::fstat(file.get(), &status), 0);
        io.shared_size = static_cast<std::size_t>(status.st_size);
    }

    unique_fd file;
    ks_io io = {};
};

TEST_F(RequestTextTest, IsTheWholeFile) {
    put(R"({"a":1})");
    EXPECT_EQ(request_text(&io), R"({"a":1})");
    put(std::string(200000, 'x'));
    EXPECT_EQ(request_text(&io), std::string(200000, 'x')) << "longer than one read";
}

TEST_F(RequestTextTest, DoesNotMoveTheFileOffset) {
    put("text");
    ASSERT_EQ(::lseek(file.get(), 2, SEEK_SET), 2);
    EXPECT_EQ(request_text(&io), "text");
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 2);
}

TEST_F(RequestTextTest, EndsAtTheFirstNul) {
    put(std::string("before\0after", 12));
    EXPECT_EQ(request_text(&io), "before");
    put(std::string(100000, 'y') + '\0' + "z");
    EXPECT_EQ(request_text(&io), std::string(100000, 'y'));
    put(std::string(1, '\0'));
    EXPECT_EQ(request_text(&io), "");
}

TEST_F(RequestTextTest, IsEmptyWithoutText) {
    EXPECT_EQ(request_text(&io), "");
    io.memfd = -1;
    EXPECT_EQ(request_text(&io), "");
    io.shared_size = 10;
    EXPECT_EQ(request_text(&io), "") << "what cannot be read";
}

TEST_F(RequestTextTest, AFileTruncatedMeanwhileEndsTheText) {
    put(std::string(10000, 'x'));
    ASSERT_EQ(::ftruncate(file.get(), 10), 0);
    EXPECT_EQ(request_text(&io), std::string(10, 'x'));
}

TEST_F(RequestTextTest, AFileThatGrewIsReadAsItWasMapped) {
    put("four");
    ASSERT_EQ(::pwrite(file.get(), "more", 4, 4), 4);
    EXPECT_EQ(request_text(&io), "four");
}

TEST_F(RequestTextTest, TextsAboveTheLimitAreRefused) {
    put(std::string(k16MiB, 'x'));
    EXPECT_EQ(request_text(&io).size(), k16MiB);
    put("x", k16MiB);
    EXPECT_EQ(request_text(&io), "");
}

TEST_F(RequestTextTest, AHugeHoleCostsNothing) {
    put("short");
    ASSERT_EQ(::ftruncate(file.get(), off_t{1} << 40), 0);
    take_size();
    EXPECT_EQ(request_text(&io), "short");
}

TEST_F(RequestTextTest, WhatIsNoFileIsUnreadable) {
    std::array<int, 2> ends = {};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const unique_fd read_end(ends[0]);
    const unique_fd write_end(ends[1]);
    io.memfd = read_end.get();
    io.shared_size = 100;
    EXPECT_EQ(request_text(&io), "");
}

} // namespace
