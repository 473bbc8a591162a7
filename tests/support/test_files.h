// Files of a test: a fresh folder, reading and writing whole, and a process of its own for what would disturb the rest.
#ifndef VEXPROD_TESTS_TEST_FILES_H
#define VEXPROD_TESTS_TEST_FILES_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

/// A fresh folder under /tmp, removed with all its content at scope end.
class test_folder {
public:
    test_folder() {
        std::string name = "/tmp/vexprod-test-XXXXXX";
        path_ = ::mkdtemp(name.data()) == nullptr ? "" : name;
        EXPECT_FALSE(path_.empty());
    }
    test_folder(const test_folder&) = delete;
    test_folder& operator=(const test_folder&) = delete;
    ~test_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Makes or replaces `path`, with the folders above it.
inline void write_file(const std::string& path, std::string_view text) {
    std::filesystem::create_directories(std::filesystem::absolute(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    ASSERT_TRUE(file) << path;
}

inline bool file_exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

/// Runs `body` in a forked copy of the test process, for what changes the process as a whole. Its expectations count in
/// the copy: failed ones go to standard error and fail the test here. @return Whether all went well in there.
inline bool passes_in_own_process(const std::function<void()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(60); // the deadline of a copy that hangs
        body();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

#endif
