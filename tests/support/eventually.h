// Waiting for a condition, never for a fixed time.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace qor::testing {

// Whether `condition` holds within `timeout`, asked every few milliseconds. The time-out only
// ends a test that has already failed: a passing one goes on as soon as the condition holds.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
  for (const auto deadline = std::chrono::steady_clock::now() + timeout; !condition();) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace qor::testing
