// A library of the host, opened for one call.
#ifndef VEXPROD_HANDLERS_HOST_LIBRARY_H
#define VEXPROD_HANDLERS_HOST_LIBRARY_H

#include "scoped.h"

#include <dlfcn.h>

/// Owns the handle: the library is closed at scope end.
///
///     host_library library(kConfigLibrary);
///     if (auto* get = library.function<int(settings*)>("Get_settings")) { get(&record); }
///
/// Nothing inside the library may outlive it: copy what its functions return, except heap blocks.
class host_library {
public:
    /// Opens the library at `path` with all its symbols bound. One that cannot be opened has no functions.
    explicit host_library(const char* path) noexcept : handle_(::dlopen(path, RTLD_NOW)) {}

    /// @return The function called `name`, valid until the library is closed; null if the library has none or is not
    ///         open. That its type is `Function` is the caller's promise, unchecked.
    template <class Function>
    [[nodiscard]] Function* function(const char* name) const noexcept {
        return handle_ ? reinterpret_cast<Function*>(::dlsym(handle_.get(), name)) : nullptr;
    }

private:
    unique_dl handle_;
};

#endif
