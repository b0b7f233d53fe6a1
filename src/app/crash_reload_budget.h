// CrashReloadBudget: how often the page is reloaded after its process died.
// A page that kills its process again and again is not reloaded for ever.
//
// Threads: the UI thread.
#pragma once

#include <chrono>
#include <deque>

namespace qor {

class CrashReloadBudget {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr int reloadsPerWindow = 3;
  static constexpr std::chrono::seconds window{60};

  // True, and counted, when fewer than reloadsPerWindow reloads happened in
  // the window before `now`.
  bool allowReload(Clock::time_point now = Clock::now());

 private:
  std::deque<Clock::time_point> reloads_;
};

}  // namespace qor
