// How often a page whose process died is reloaded.
#include "app/crash_reload_budget.h"

#include <gtest/gtest.h>

namespace qor {
namespace {

using namespace std::chrono_literals;

TEST(CrashReloadBudget, ThreeReloadsInAnyMinute) {
  const auto start = CrashReloadBudget::Clock::time_point{} + 1h;
  // Seconds after the start at which the page process dies, and whether it is reloaded.
  const std::pair<int, bool> crashes[] = {
      {0, true},   {10, true}, {20, true}, {30, false},  {59, false},
      {60, true},  // the first has left the minute
      {65, false}, {70, true}, {80, true}, {119, false}, {200, true},
  };
  CrashReloadBudget budget;
  for (const auto& [second, reloaded] : crashes) {
    EXPECT_EQ(budget.allowReload(start + std::chrono::seconds(second)), reloaded) << second;
  }
}

}  // namespace
}  // namespace qor
