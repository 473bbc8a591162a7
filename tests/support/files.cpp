#include "files.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <system_error>

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& step) {
    throw std::system_error(errno, std::generic_category(), step);
}

} // namespace

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fail("read " + path);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, std::string_view content, mode_t mode) {
    if (fs::path(path).has_parent_path()) {
        fs::create_directories(fs::path(path).parent_path());
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file || chmod(path.c_str(), mode) != 0) {
        fail("write " + path);
    }
}

temp_dir::temp_dir() : path_("/tmp/test.XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
        fail("make a temporary folder");
    }
}

temp_dir::~temp_dir() {
    std::error_code ignored; // the simulated host is thrown away anyway
    fs::remove_all(path_, ignored);
}
