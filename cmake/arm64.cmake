# Toolchain of the presets arm64 and arm64-release: Debian's cross compiler, and the root that scripts/make-sysroot makes
# of Debian's arm64 packages. The C library's own headers and start files come with the compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH vexprod_root)
set(CMAKE_SYSROOT "${vexprod_root}/build-arm64-sysroot")
if(NOT EXISTS "${CMAKE_SYSROOT}")
    message(FATAL_ERROR "${CMAKE_SYSROOT} is missing; scripts/make-sysroot makes it")
endif()
# Programs are this machine's, everything else is the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
