#include "fresh_file.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

TEST(FreshFileTest, HasItsOwnContentAndMode) {
    const test_folder folder;
    write_file(folder / "victim", "untouched");
    fs::create_symlink(folder / "victim", folder / "link");
    fs::create_hard_link(folder / "victim", folder / "second name");
    write_file(folder / "older", "of before");
    const mode_t before = umask(0);
    for (const char* name : {"nothing", "link", "second name", "older"}) {
        const unique_fd file = create_anew((folder / name).c_str(), 0640);
        EXPECT_TRUE(file.ok()) << name;
        EXPECT_EQ(write(file.get(), "new", 3), 3) << name;
        EXPECT_EQ(read_file(folder / name), "new") << name;
        struct stat status = {};
        EXPECT_EQ(lstat((folder / name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0640)) << name;
    }
    (void)umask(before);
    EXPECT_EQ(read_file(folder / "victim"), "untouched");
}

TEST(FreshFileTest, WhatCannotBeReplacedIsNothingAndTellsWhy) {
    const test_folder folder;
    EXPECT_FALSE(create_anew(folder.path().c_str(), 0600).ok());
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(create_anew((folder / "no/such/file").c_str(), 0600).ok());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(create_anew("", 0600).ok());
}

TEST(FreshFileTest, IsNoChildsBusinessNorAStandardStream) {
    EXPECT_TRUE(passes_in_own_process([] {
        const test_folder folder;
        EXPECT_EQ(fcntl(create_anew((folder / "file").c_str(), 0600).get(), F_GETFD), FD_CLOEXEC);
        (void)close(STDIN_FILENO);
        const unique_fd file = create_anew((folder / "file").c_str(), 0600);
        EXPECT_GT(file.get(), STDERR_FILENO);
        EXPECT_EQ(fcntl(file.get(), F_GETFD), FD_CLOEXEC);
    }));
}

} // namespace
