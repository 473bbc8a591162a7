# What every target of the project shares: language level, warnings, sanitizers, output folders, and the helpers
# vexprod_harden(), vexprod_split_debug(), vexprod_add_library(), vexprod_add_test() and vexprod_add_pytest().

include(GNUInstallDirs)
include(GoogleTest)

option(VEXPROD_WERROR "Treat warnings as errors" ON)
option(VEXPROD_BENCH "Build the benchmarks" ON)
option(VEXPROD_HOSTSIM "Build the simulated host also without tests and benchmarks" OFF)
option(VEXPROD_COVERAGE "Instrument for gcov" OFF)
option(VEXPROD_STANDALONE "Programs contain the JSON library and the compiler's own libraries" OFF)
option(VEXPROD_SPLIT_DEBUG "Strip programs and the shared library, with their debug symbols beside them" OFF)
option(VEXPROD_FUZZ "Instrument for clang's fuzzing engine" OFF)
set(VEXPROD_TEST_TIMEOUT 120 CACHE STRING "Seconds that a test may take that does not ask for more")
set(VEXPROD_SANITIZE "" CACHE STRING "Sanitizers, as for -fsanitize= (address,undefined or thread)")

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")

find_program(VEXPROD_CCACHE ccache)
if(VEXPROD_CCACHE)
    # Relative paths below the project, but not in messages: what one clone has compiled serves another.
    set(CMAKE_C_COMPILER_LAUNCHER env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_ABSSTDERR=1 "${VEXPROD_CCACHE}")
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_C_COMPILER_LAUNCHER})
endif()

# Debuggers find the sources when they are started in the project's folder, whichever clone that is.
add_compile_options("-fdebug-prefix-map=${PROJECT_SOURCE_DIR}=.")
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -fno-omit-frame-pointer)
if(VEXPROD_WERROR)
    add_compile_options(-Werror)
endif()
# 64-bit offsets everywhere; GNU for memfd_create, close_range and friends, in C++ as in C.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64)

if(VEXPROD_SANITIZE)
    add_compile_options(-fsanitize=${VEXPROD_SANITIZE} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${VEXPROD_SANITIZE})
else()
    add_link_options(-Wl,-z,relro -Wl,-z,now)
endif()
if(VEXPROD_STANDALONE)
    # libkservice is linked as C and takes nothing of the compiler's.
    add_link_options($<$<LINK_LANGUAGE:CXX>:-static-libstdc++> $<$<LINK_LANGUAGE:CXX>:-static-libgcc>)
    add_compile_options(-ffunction-sections -fdata-sections)
    add_link_options(-Wl,--gc-sections)
endif()
if(VEXPROD_FUZZ)
    # The warnings are GCC's business, as some of the attributes are.
    add_compile_options(-fsanitize=fuzzer-no-link -w)
endif()
if(VEXPROD_SANITIZE MATCHES thread)
    # An object, not an archive: the sanitizer's library comes first and has a definition of its own.
    add_library(vexprod_thread_sanitizer OBJECT "${CMAKE_CURRENT_LIST_DIR}/thread_sanitizer.c")
    set_target_properties(vexprod_thread_sanitizer PROPERTIES POSITION_INDEPENDENT_CODE ON)
    # It is also in the programs that are not instrumented.
    target_compile_options(vexprod_thread_sanitizer PRIVATE -fno-sanitize=all)
    link_libraries(vexprod_thread_sanitizer)
endif()
if(VEXPROD_COVERAGE)
    # Atomic counters: the code under test runs in many threads.
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
    add_library(vexprod_coverage_exit STATIC "${CMAKE_CURRENT_LIST_DIR}/coverage_exit.c")
    set_target_properties(vexprod_coverage_exit PROPERTIES POSITION_INDEPENDENT_CODE ON)
    # --undefined: taken from the archive at once, also for callers in libraries that come after it.
    add_link_options("LINKER:--wrap=_exit,--wrap=abort,--wrap=raise,--undefined=__wrap__exit")
    link_libraries(vexprod_coverage_exit)
endif()

# vexprod_harden(TARGET)
# Makes mistakes in what is shipped, and runs as root, harder to use; scripts/check-release looks whether it did. Programs
# are position-independent by the compilers' own default.
function(vexprod_harden target)
    if(NOT VEXPROD_STANDALONE)
        return()
    endif()
    target_compile_options(${target} PRIVATE -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
        target_compile_options(${target} PRIVATE -fcf-protection)
    elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        target_compile_options(${target} PRIVATE -mbranch-protection=standard)
    endif()
endfunction()

# vexprod_split_debug(TARGET)
# FILE.debug beside the target's file; debuggers find it there.
function(vexprod_split_debug target)
    if(VEXPROD_SPLIT_DEBUG)
        set(file "$<TARGET_FILE:${target}>")
        add_custom_command(TARGET ${target} POST_BUILD VERBATIM
            COMMAND ${CMAKE_OBJCOPY} --only-keep-debug "${file}" "${file}.debug"
            COMMAND ${CMAKE_OBJCOPY} --strip-unneeded "--add-gnu-debuglink=${file}.debug" "${file}")
    endif()
endfunction()

# vexprod_add_library(NAME SOURCES a.cpp ... [DEPS targets ...])
# A static library NAME, linked as vexprod::NAME. Its own folder is its only public include path, so a target sees the
# headers of exactly those targets that it names in DEPS.
function(vexprod_add_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
    add_library(vexprod_${name} STATIC ${ARG_SOURCES})
    add_library(vexprod::${name} ALIAS vexprod_${name})
    target_include_directories(vexprod_${name} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
    target_link_libraries(vexprod_${name} PUBLIC ${ARG_DEPS})
    vexprod_harden(vexprod_${name})
endfunction()

# vexprod_add_test(NAME SOURCES a_test.cpp ... [DEPS targets ...] [TIMEOUT seconds])
# One GoogleTest program. Each of its tests runs as a ctest entry of its own in a fresh simulated host (hostsim/enter),
# so that tests use the daemon's fixed paths, cannot disturb one another and never touch the machine. Its label is its
# folder's name (ctest -L framework).
function(vexprod_add_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT ${VEXPROD_TEST_TIMEOUT})
    endif()
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
    # Test code is compiled far more often than it runs: unoptimised it compiles in less than half the time.
    target_compile_options(${name} PRIVATE -O0 -g1)
    # CMake's name for "run it through this": ctest uses it both to list the tests and to run each of them.
    set(through "${PROJECT_SOURCE_DIR}/hostsim/enter" --build "${CMAKE_BINARY_DIR}")
    if(CMAKE_CROSSCOMPILING)
        list(PREPEND through "${PROJECT_SOURCE_DIR}/tests/emulation/run")
    endif()
    set_target_properties(${name} PROPERTIES
        CROSSCOMPILING_EMULATOR "${through}"
        RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/tests")
    add_dependencies(${name} hostsim)
    get_filename_component(folder "${CMAKE_CURRENT_SOURCE_DIR}" NAME)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS ${folder})
endfunction()

# vexprod_add_pytest(NAME FILE.py ... [TIMEOUT seconds])
# The files' tests as one ctest entry, in a fresh simulated host. They find the build folder in $BUILD, the programs that
# they talk to in $C_SERVICE and $CPP_PEER, and the compilers in $CC and $CXX.
function(vexprod_add_pytest name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 600)
    endif()
    get_filename_component(folder "${CMAKE_CURRENT_SOURCE_DIR}" NAME)
    # Debian's own interpreter: pytest is one of its packages.
    add_test(NAME ${name} WORKING_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}"
        COMMAND "${PROJECT_SOURCE_DIR}/hostsim/enter" --build "${CMAKE_BINARY_DIR}"
                /usr/bin/python3 -B -m pytest -q -rx -p no:cacheprovider ${ARG_UNPARSED_ARGUMENTS})
    set(programs "C_SERVICE=${CMAKE_BINARY_DIR}/tests/c_service" "CPP_PEER=${CMAKE_BINARY_DIR}/tests/cpp_peer")
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "BUILD=${CMAKE_BINARY_DIR};${programs};CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER}$<$<BOOL:${CMAKE_CROSSCOMPILING}>:;EMULATED=1>"
        TIMEOUT ${ARG_TIMEOUT} LABELS ${folder})
endfunction()
