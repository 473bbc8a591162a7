// The main of a target where no fuzzing engine is: runs the target once for each file that is named or stands in a
// folder that is named. NAME FILE-OR-FOLDER... Exit status: 0, 1 when there was no file, 2 without an argument.
#include "fuzz.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <span>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Absolute: a target may change the folder.
std::vector<fs::path> files_of(const fs::path& named) {
    const fs::path path = fs::absolute(named);
    if (!fs::is_directory(path)) {
        return {path};
    }
    std::vector<fs::path> files(fs::directory_iterator(path), fs::directory_iterator{});
    std::sort(files.begin(), files.end());
    return files;
}

void replay(const fs::path& path) {
    // To standard error: some of what a target runs takes standard output for itself.
    (void)std::fprintf(stderr, "%s\n", path.filename().c_str());
    std::ifstream file;
    file.exceptions(std::ios::badbit | std::ios::failbit);
    file.open(path, std::ios::binary);
    // Of exactly its size, so that the address sanitizer sees who reads past the end.
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        (void)std::fprintf(stderr, "usage: %s FILE-OR-FOLDER...\n", argv[0]);
        return 2;
    }
    std::size_t count = 0;
    try {
        for (const char* name : std::span(argv + 1, argv + argc)) {
            for (const fs::path& file : files_of(name)) {
                replay(file);
                ++count;
            }
        }
    } catch (const std::exception& failure) {
        (void)std::fprintf(stderr, "%s: %s\n", argv[0], failure.what());
        return 1;
    }
    (void)std::fprintf(stderr, "%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
