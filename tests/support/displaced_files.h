// Files of the host that a test takes away or puts something else in the place of. At scope end the host has its own
// again, so that the next test of the process finds the host as the first one did.
#ifndef VEXPROD_TESTS_DISPLACED_FILES_H
#define VEXPROD_TESTS_DISPLACED_FILES_H

#include "test_files.h"

#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>

class displaced_files {
public:
    displaced_files() = default;
    displaced_files(const displaced_files&) = delete;
    displaced_files& operator=(const displaced_files&) = delete;
    ~displaced_files() {
        for (const std::string& path : paths_) {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
            std::filesystem::rename(path + kAway, path, ignored);
        }
    }

    /// From now on there is nothing at `path`. Throws outside the simulated host, and when there was nothing before.
    void take_away(const std::string& path) {
        if (::getenv("HOSTSIM") == nullptr) {
            throw std::logic_error(path + " outside the simulated host");
        }
        if (paths_.contains(path)) {
            std::filesystem::remove_all(path);
        } else {
            std::filesystem::rename(path, path + kAway);
            paths_.insert(path);
        }
    }
    /// Puts a shell script in the place of the program at `path`.
    void replace_by_script(const std::string& path, const std::string& body) {
        take_away(path);
        write_file(path, "#!/bin/sh\n" + body + "\n");
        ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    }
    /// Puts a file that nobody may execute in the place of the program at `path`.
    void replace_by_plain_file(const std::string& path) {
        take_away(path);
        write_file(path, "no program\n");
        ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    }
    void replace_by_copy_of(const std::string& path, const std::string& other) {
        take_away(path);
        std::filesystem::copy_file(other, path);
    }

private:
    static constexpr const char* kAway = ".displaced";
    std::set<std::string> paths_;
};

#endif
