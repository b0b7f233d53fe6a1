// The one way background work reaches the user interface: tasks posted here
// run on the UI thread, one at a time, in the order they were posted.
#pragma once

#include <functional>

namespace qor {

class MainThreadQueue {
 public:
  virtual ~MainThreadQueue() = default;

  // Any thread. Never runs the task before returning.
  virtual void post(std::function<void()> task) = 0;
};

}  // namespace qor
