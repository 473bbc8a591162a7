// What not everybody may do who can run the tests. In a simulated host that an ordinary user made, root inside is that
// user outside; and a container's root may have few of root's rights. Tests that need more are skipped there.
#ifndef VEXPROD_TESTS_PRIVILEGES_H
#define VEXPROD_TESTS_PRIVILEGES_H

#include <fstream>
#include <linux/capability.h>
#include <string>

/// First in a test: skips it unless `allowed`; `what` tells what it does.
#define SKIP_UNLESS(allowed, what)                                                                                     \
    if (!(allowed)) {                                                                                                  \
        GTEST_SKIP() << (what);                                                                                        \
    }                                                                                                                  \
    static_assert(true)

/// Whether the machine's users are known here: the ids are all mapped.
inline bool may_become_others() {
    std::ifstream mapping("/proc/self/uid_map");
    unsigned inside = 1;
    unsigned outside = 1;
    unsigned count = 0;
    mapping >> inside >> outside >> count;
    return inside == 0 && outside == 0 && count == 4294967295U;
}

inline bool may_mount() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "CapEff:" && status >> word) {
            return (std::stoull(word, nullptr, 16) >> CAP_SYS_ADMIN & 1) != 0;
        }
    }
    return false;
}

/// These are the business of who may administer the machine, not just a namespace.
inline bool may_set_trusted_attributes() {
    return may_become_others() && may_mount();
}

#endif
