// An older kernel, or one that refuses: a system call that does not exist from here on.
#ifndef VEXPROD_TESTS_FORBID_SYSTEM_CALL_H
#define VEXPROD_TESTS_FORBID_SYSTEM_CALL_H

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

/// From now on the call fails with ENOSYS, in this process and its children, for good.
inline void forbid_system_call(unsigned number) {
    std::array<sock_filter, 4> program = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

#endif
