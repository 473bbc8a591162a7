// Files that tests make and look at. Every failure throws, which fails the test with the path and the reason.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

/// The whole content of `path`.
std::string read_file(const std::string& path);

/// Makes or replaces `path`, with the folders above it. `mode` is set whatever the umask is.
void write_file(const std::string& path, std::string_view content, mode_t mode = 0644);

/// A fresh folder under /tmp, removed with all that is in it at the end of the scope.
class temp_dir {
public:
    temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    ~temp_dir();

    [[nodiscard]] const std::string& path() const { return path_; }
    /// The absolute path of `name` in the folder; nothing is made.
    [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
