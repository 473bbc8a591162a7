// RAII owners for C interfaces, one line per kind; the name says what it closes, release() hands over.
#ifndef VEXPROD_UTIL_SCOPED_H
#define VEXPROD_UTIL_SCOPED_H

#include "kservice.h"
#include "runner.h"

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <dlfcn.h>
#include <memory>

template <auto Close>
struct close_with {
    template <class T>
    void operator()(T* p) const noexcept {
        (void)Close(p);
    }
};

using unique_file = std::unique_ptr<FILE, close_with<&std::fclose>>;
/// A stream of the popen calls: never fclose() one.
using unique_pipe = std::unique_ptr<FILE, close_with<&lyn_vexprod_corvo_pclose>>;
using unique_dir = std::unique_ptr<DIR, close_with<&::closedir>>;
using unique_dl = std::unique_ptr<void, close_with<&::dlclose>>;
template <class T>
using unique_heap = std::unique_ptr<T, close_with<&std::free>>; ///< What a C function malloc()ed.

/// ks_io_free() returns nothing, hence its own deleter.
struct free_io {
    void operator()(ks_io* io) const noexcept { ks_io_free(io); }
};
using unique_io = std::unique_ptr<ks_io, free_io>;

#endif
