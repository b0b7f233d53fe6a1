#include "app/crash_reload_budget.h"

namespace qor {

bool CrashReloadBudget::allowReload(Clock::time_point now) {
  while (!reloads_.empty() && now - reloads_.front() >= window) reloads_.pop_front();
  if (reloads_.size() >= reloadsPerWindow) return false;
  reloads_.push_back(now);
  return true;
}

}  // namespace qor
