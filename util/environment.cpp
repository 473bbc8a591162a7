#include "environment.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

std::mutex environment_mutex;

// Whether `entry`, of the form name=value, is the variable `name`.
bool is_variable(const char* entry, std::string_view name) {
    return std::strncmp(entry, name.data(), name.size()) == 0 && entry[name.size()] == '=';
}

} // namespace

int environment_set(const char* name, const char* value) {
    const std::lock_guard lock(environment_mutex);
    return ::setenv(name, value, 1);
}

int environment_unset(const char* name) {
    const std::lock_guard lock(environment_mutex);
    return ::unsetenv(name);
}

std::unique_lock<std::mutex> environment_try_lock() {
    return {environment_mutex, std::try_to_lock};
}

environment_snapshot environment_snapshot::own_without(std::string_view name) {
    environment_snapshot copy;
    std::vector<std::size_t> starts; // offsets first: text_ moves while it grows
    {
        const std::lock_guard lock(environment_mutex);
        for (char** entry = ::environ; entry != nullptr && *entry != nullptr; ++entry) {
            if (!is_variable(*entry, name)) {
                starts.push_back(copy.text_.size());
                copy.text_.insert(copy.text_.end(), *entry, *entry + std::strlen(*entry) + 1);
            }
        }
    }
    copy.pointers_.reserve(starts.size() + 1);
    for (const std::size_t start : starts) {
        copy.pointers_.push_back(copy.text_.data() + start);
    }
    copy.pointers_.push_back(nullptr);
    return copy;
}
