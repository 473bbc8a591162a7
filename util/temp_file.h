// A temporary file for a tool's output, removed at scope end.
#ifndef VEXPROD_UTIL_TEMP_FILE_H
#define VEXPROD_UTIL_TEMP_FILE_H

#include <cstddef>
#include <string>

/// Owns a new, empty file "/tmp/vexprod-XXXXXX", mode 0600, created exclusively. It is held by name, not by
/// descriptor: the runner opens it by name, and a tool may replace it.
///
///     temp_file output;
///     int status = lyn_vexprod_corvo_exec(output.path(), nullptr, nullptr, tool, nullptr);
///     std::string text = output.read_all();
class temp_file {
public:
    /// Creates the file. On failure ok() is false and path() is empty, which no call can open.
    temp_file() noexcept;
    temp_file(temp_file&& other) noexcept;
    temp_file& operator=(temp_file&& other) noexcept;
    temp_file(const temp_file&) = delete;
    temp_file& operator=(const temp_file&) = delete;
    ~temp_file(); ///< Removes the file, if still owned.

    [[nodiscard]] bool ok() const noexcept { return path_[0] != '\0'; } ///< Whether the file was created.
    [[nodiscard]] const char* path() const noexcept { return path_; } ///< Stays readable after remove() and release().

    /// @return The file's current content; empty if it cannot be read.
    [[nodiscard]] std::string read_all() const;
    /// @return At most its first `limit_bytes`.
    [[nodiscard]] std::string read_at_most(std::size_t limit_bytes) const;

    /// Removes the file now instead of at scope end. @return 0, or -1 and errno.
    int remove() noexcept;

    /// Gives up ownership: the file stays. @return Its path.
    const char* release() noexcept;

private:
    char path_[sizeof "/tmp/vexprod-XXXXXX"] = {};
    bool owned_ = false;
};

#endif
