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
