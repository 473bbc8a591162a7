// What the fuzz targets share.
//
// A target is one file NAME.cpp with one function, LLVMFuzzerTestOneInput(): it does with an input what the product
// does with something from outside, and calls require() on what must hold whatever the input was. Everything is real:
// the product's own functions, sockets, descriptors, and the simulated host's tools. clang's engine looks for inputs
// (scripts/fuzz); the suite replays seeds/NAME/ with any compiler (replay.cpp).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Ends the process when `holds` is false: that is what the engine takes for a finding.
inline void require(bool holds, const char* what) {
    if (!holds) {
        (void)std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

/// An input as text.
inline std::string_view text_of(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// An input as a script, read from its front. Behind its end there are zeros and empty texts.
class script {
public:
    script(const std::uint8_t* data, std::size_t size) : rest_(text_of(data, size)) {}

    [[nodiscard]] bool at_end() const { return rest_.empty(); }
    std::uint8_t byte() {
        const std::string_view one = text(1);
        return one.empty() ? 0 : static_cast<std::uint8_t>(one.front());
    }
    /// At most `size` bytes; a view of the input.
    std::string_view text(std::size_t size) {
        const std::string_view taken = rest_.substr(0, size);
        rest_.remove_prefix(taken.size());
        return taken;
    }

private:
    std::string_view rest_;
};

/// How many descriptors the process has open, the one that looks included.
inline std::size_t open_descriptors() {
    DIR* listing = ::opendir("/proc/self/fd");
    require(listing != nullptr, "the process's descriptors can be listed");
    std::size_t count = 0;
    while (::readdir(listing) != nullptr) {
        ++count;
    }
    ::closedir(listing);
    return count - 2; // "." and ".."
}

/// Waits until no more than `count` descriptors are open. Strangers' are closed by threads of their own, and a worker
/// closes its caller's after the reply.
/// @return How many are open then; fewer when some were about to be closed while they were counted.
inline std::size_t require_open_descriptors(std::size_t count) {
    const auto give_up_at = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::size_t now = 0;
    while ((now = open_descriptors()) > count) {
        if (std::chrono::steady_clock::now() > give_up_at) {
            (void)std::fprintf(stderr, "%zu descriptors are open\n", now);
            for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
                std::error_code closed;
                const std::string target = std::filesystem::read_symlink(entry, closed);
                (void)std::fprintf(stderr, "%s %s\n", entry.path().filename().c_str(), target.c_str());
            }
            require(false, ("as before, when they were " + std::to_string(count)).c_str());
        }
        std::this_thread::yield();
    }
    return now;
}
