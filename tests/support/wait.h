// Waiting for a condition instead of sleeping.
#ifndef VEXPROD_TESTS_WAIT_H
#define VEXPROD_TESTS_WAIT_H

#include <chrono>
#include <cstddef>
#include <functional>

/// Long enough for a loaded machine under a sanitizer; only a failing test waits it out.
constexpr std::chrono::seconds kPatience{20};

/// Polls `condition` every few milliseconds until it holds or `patience` is over.
/// @return whether it held, so that tests write ASSERT_TRUE(wait_until([&] { return ...; })).
[[nodiscard]] bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds patience = kPatience);

/// Polls `count` until it has stopped changing: what the last request set in motion is over.
/// @return its value then.
std::size_t settled(const std::function<std::size_t()>& count);

#endif
