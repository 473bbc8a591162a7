// An argument vector in the form that execve() and the runner's vector calls take.
#ifndef VEXPROD_UTIL_ARGUMENT_VECTOR_H
#define VEXPROD_UTIL_ARGUMENT_VECTOR_H

#include <string>
#include <utility>
#include <vector>

/// Owns copies of its entries.
class argument_vector {
public:
    /// Throws std::bad_alloc.
    explicit argument_vector(std::vector<std::string> entries) : entries_(std::move(entries)) {
        pointers_.reserve(entries_.size() + 1);
        for (std::string& entry : entries_) {
            pointers_.push_back(entry.data());
        }
        pointers_.push_back(nullptr);
    }
    // A move keeps the vectors' blocks, and so the strings that pointers_ points into.
    argument_vector(argument_vector&&) noexcept = default;
    argument_vector& operator=(argument_vector&&) noexcept = default;
    argument_vector(const argument_vector&) = delete;
    argument_vector& operator=(const argument_vector&) = delete;
    ~argument_vector() = default;

    /// NULL-terminated, valid as long as this object.
    [[nodiscard]] char* const* data() const noexcept { return pointers_.data(); }

private:
    std::vector<std::string> entries_;
    std::vector<char*> pointers_; ///< Into entries_.
};

/// @return The part of `path` after its last "/", all of it without one; a null path gives an empty text.
inline std::string base_name(const char* path) {
    const std::string whole = path == nullptr ? "" : path;
    return whole.substr(whole.rfind('/') + 1); // no "/": npos + 1 is 0
}

#endif
