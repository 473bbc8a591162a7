#include "descriptor_limit.h"

#include <algorithm>
#include <atomic>

namespace {

std::atomic<rlim_t> original_soft_limit{RLIM_INFINITY};
std::atomic<bool> limit_was_raised{false};

} // namespace

void raise_descriptor_limit() {
    struct rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    const rlim_t soft_limit = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    if (!limit_was_raised.load(std::memory_order_acquire)) {
        original_soft_limit.store(soft_limit, std::memory_order_relaxed);
        limit_was_raised.store(true, std::memory_order_release);
    }
}

bool original_descriptor_limit(struct rlimit* ret_limit) {
    struct rlimit limit = {};
    if (!limit_was_raised.load(std::memory_order_acquire) || ::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = std::min(original_soft_limit.load(std::memory_order_relaxed), limit.rlim_max);
    *ret_limit = limit;
    return true;
}
