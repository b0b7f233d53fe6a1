// Monotonic time in the program's own seconds. The application runs at speed
// 1; tests run the same code faster by giving a higher speed, so every sleep,
// deadline and elapsed-time reading shrinks together.
#pragma once

#include <chrono>
#include <thread>

namespace qor {

class ScaledClock {
 public:
  using Seconds = std::chrono::duration<double>;
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit ScaledClock(double speed = 1.0) : speed_(speed) {}

  TimePoint now() const { return std::chrono::steady_clock::now(); }

  // Program seconds elapsed since `start`.
  Seconds since(TimePoint start) const { return (now() - start) * speed_; }

  void sleepFor(Seconds seconds) const { std::this_thread::sleep_for(toReal(seconds)); }

  // The wall-clock span that `seconds` of program time takes.
  std::chrono::milliseconds toReal(Seconds seconds) const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(seconds / speed_);
  }

 private:
  double speed_;
};

}  // namespace qor
