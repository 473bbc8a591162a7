// What happens when memory runs out just where the runner needs some. A program of its own, because it replaces the
// global allocation functions, and the C library's that allocates a stream.
#include "exec_cli.h"
#include "runner.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <new>
#include <string>

namespace {

thread_local std::size_t refused_bytes = 0; // allocations of exactly this size fail; 0 = none
thread_local bool refuses_all = false;
thread_local bool refuses_streams = false;

} // namespace

extern "C" FILE* fdopen(int fd, const char* mode) noexcept {
    static const auto original = reinterpret_cast<decltype(&fdopen)>(::dlsym(RTLD_NEXT, "fdopen"));
    if (refuses_streams) {
        errno = ENOMEM;
        return nullptr;
    }
    return original(fd, mode);
}

void* operator new(std::size_t size) {
    void* block = refuses_all || size == refused_bytes ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}

namespace {

TEST(OutOfMemoryTest, ExecCliReportsIt) {
    std::string input = R"({"command":["/bin/echo")";
    for (int i = 0; i < 1000; ++i) {
        input += ",1";
    }
    input += "]}";
    std::string output;
    refused_bytes = 1002 * sizeof(char*); // 1001 entries and the null
    const int status = exec_cli(input, output);
    refused_bytes = 0;
    EXPECT_EQ(status, -2);
    EXPECT_EQ(output, "malloc fail.");
    EXPECT_EQ(exec_cli(input, output), 0) << "and without the shortage it works";
}

TEST(OutOfMemoryTest, VariadicCallsStartNothing) {
    const std::string argument(5000, 'a');
    refused_bytes = argument.size() + 1; // its copy
    errno = 0;
    const int first = lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, "/bin/true", argument.c_str(), nullptr);
    const int second =
        lyn_vexprod_corvo_exec_v2(nullptr, nullptr, nullptr, nullptr, "/bin/true", argument.c_str(), nullptr);
    FILE* stream = lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", "/bin/true", argument.c_str(), nullptr);
    const int popen_errno = errno;
    refused_bytes = 0;
    EXPECT_EQ(first, -1);
    EXPECT_EQ(second, -1);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(popen_errno, ENOMEM);
}

TEST(OutOfMemoryTest, VectorCallsStartNothingWithoutMemoryForTheEnvironment) {
    char name[] = "true";
    char* argv[] = {name, nullptr};
    refused_bytes = sizeof(std::size_t); // the first entry of the own environment
    const int second = lyn_vexprod_corvo_exec_v_v2(nullptr, nullptr, nullptr, nullptr, "/bin/true", argv);
    errno = 0;
    FILE* stream = lyn_vexprod_corvo_popen_v_v2(nullptr, nullptr, nullptr, "r", "/bin/true", argv);
    const int popen_errno = errno;
    refused_bytes = 0;
    EXPECT_EQ(second, -1);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(popen_errno, ENOMEM);
}

TEST(OutOfMemoryTest, TheFirstGenerationsVectorCallNeedsNone) {
    char name[] = "true";
    char* argv[] = {name, nullptr};
    refuses_all = true;
    const int status = lyn_vexprod_corvo_exec_v(nullptr, nullptr, nullptr, "/bin/true", argv);
    refuses_all = false;
    EXPECT_EQ(status, 0);
}

TEST(OutOfMemoryTest, NoStreamToBeHadGivesNullAndLeavesNoOutput) {
    const test_folder folder;
    const std::string out = folder / "out";
    const std::string err = folder / "err";
    for (const char* mode : {"r", "w"}) {
        refuses_streams = true;
        FILE* stream =
            lyn_vexprod_corvo_popen_v2(nullptr, out.c_str(), err.c_str(), mode, "/bin/touch", out.c_str(), nullptr);
        const int popen_errno = errno;
        refuses_streams = false;
        EXPECT_EQ(stream, nullptr);
        EXPECT_EQ(popen_errno, ENOMEM);
        EXPECT_FALSE(file_exists(out)) << mode << ", or the child was started";
        EXPECT_FALSE(file_exists(err)) << mode;
    }
}

} // namespace
