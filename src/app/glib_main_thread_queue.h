// MainThreadQueue on the GLib main context of the UI thread: posted tasks run
// from an idle source, one per dispatch, strictly in the order posted.
#pragma once

#include <glib.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "base/main_thread_queue.h"

namespace qor {

class GLibMainThreadQueue final : public MainThreadQueue {
 public:
  // UI thread: binds the queue to the default main context.
  GLibMainThreadQueue();
  GLibMainThreadQueue(const GLibMainThreadQueue&) = delete;
  GLibMainThreadQueue& operator=(const GLibMainThreadQueue&) = delete;

  // Any thread.
  void post(std::function<void()> task) override;

 private:
  // Shared with the idle source, which may outlive the queue object. All
  // fields are guarded by the mutex.
  struct Pending {
    std::mutex mutex;
    std::deque<std::function<void()>> tasks;
    // Set while an idle source is attached: the source's own reference,
    // dropped once it has drained the tasks.
    std::shared_ptr<Pending> whileScheduled;
  };
  static gboolean onIdle(gpointer pending);

  GMainContext* const context_;
  const std::shared_ptr<Pending> pending_ = std::make_shared<Pending>();
};

}  // namespace qor
