// What only the machine's own root can do. Where the simulated host was made by an ordinary user, root inside is that
// user outside: tests that need more are skipped there.
#ifndef VEXPROD_TESTS_REAL_ROOT_H
#define VEXPROD_TESTS_REAL_ROOT_H

#include <fstream>

/// Whether root here is the machine's: all user ids are known, and trusted attributes may be set.
inline bool is_real_root() {
    std::ifstream mapping("/proc/self/uid_map");
    unsigned inside = 1;
    unsigned outside = 1;
    unsigned count = 0;
    mapping >> inside >> outside >> count;
    return inside == 0 && outside == 0 && count == 4294967295U;
}

/// First in a test or SetUp().
#define SKIP_WITHOUT_REAL_ROOT(what)                                                                                   \
    if (!is_real_root()) {                                                                                             \
        GTEST_SKIP() << what << ": the machine's root alone may do that";                                              \
    }                                                                                                                  \
    static_assert(true)

#endif
