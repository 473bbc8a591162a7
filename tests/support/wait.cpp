#include "wait.h"

#include <thread>

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition(); // it may have come true while we looked at the clock
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::size_t settled(const std::function<std::size_t()>& count) {
    std::size_t last = count();
    int unchanged = 0;
    (void)wait_until([&] {
        const std::size_t now = count();
        unchanged = now == last ? unchanged + 1 : 0;
        last = now;
        return unchanged == 10;
    });
    return last;
}
