// The process environment, shared safely between threads.
//
// setenv() may move and free the C library's environment while another thread iterates over it. All daemon code that
// changes or iterates over the environment therefore goes through here, under one mutex. The runner takes its copy
// before it makes a child, so that the child itself neither locks nor allocates.
#ifndef VEXPROD_UTIL_ENVIRONMENT_H
#define VEXPROD_UTIL_ENVIRONMENT_H

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/// setenv(3), replacing. @return 0, or -1 and errno. Any thread.
int environment_set(const char* name, const char* value);

/// unsetenv(3). @return 0, or -1 and errno. Any thread.
int environment_unset(const char* name);

/// Keeps the environment unchanged while held, for library calls that read it (tzset()).
/// @return The lock, or an empty one if the environment is just being changed: a caller that may run in a signal
///         handler must not wait for the thread that it has interrupted.
std::unique_lock<std::mutex> environment_try_lock();

/// A copy of an environment in the form that execve() takes. Immutable, may be read after any later change.
class environment_snapshot {
public:
    /// No variables at all.
    static environment_snapshot empty() noexcept { return {}; }
    /// The process's current variables, except `name`. Throws std::bad_alloc.
    static environment_snapshot own_without(std::string_view name);

    /// NULL-terminated, valid as long as this object.
    [[nodiscard]] char* const* envp() const noexcept {
        static constexpr char* kNoVariables = nullptr;
        return pointers_.empty() ? &kNoVariables : pointers_.data();
    }

    environment_snapshot(environment_snapshot&&) noexcept = default;
    environment_snapshot& operator=(environment_snapshot&&) noexcept = default;
    environment_snapshot(const environment_snapshot&) = delete;
    environment_snapshot& operator=(const environment_snapshot&) = delete;
    ~environment_snapshot() = default;

private:
    environment_snapshot() = default;

    std::vector<char> text_;      ///< The entries, one after another, each with its NUL.
    std::vector<char*> pointers_; ///< Into text_, then the null; empty without variables.
};

#endif
