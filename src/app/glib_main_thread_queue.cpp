#include "app/glib_main_thread_queue.h"

#include <utility>

namespace qor {

GLibMainThreadQueue::GLibMainThreadQueue() : context_(g_main_context_default()) {}

void GLibMainThreadQueue::post(std::function<void()> task) {
  std::lock_guard lock(pending_->mutex);
  pending_->tasks.push_back(std::move(task));
  if (pending_->whileScheduled) return;
  pending_->whileScheduled = pending_;
  GSource* source = g_idle_source_new();
  g_source_set_static_name(source, "qor main-thread queue");
  g_source_set_callback(source, onIdle, pending_.get(), nullptr);
  g_source_attach(source, context_);
  g_source_unref(source);
}

// One task per dispatch, so the window redraws between bursts of status
// texts. The source lives exactly as long as tasks are waiting.
gboolean GLibMainThreadQueue::onIdle(gpointer data) {
  auto* pending = static_cast<Pending*>(data);
  std::function<void()> task;
  std::shared_ptr<Pending> drained;  // released after the last task has run
  {
    std::lock_guard lock(pending->mutex);
    task = std::move(pending->tasks.front());
    pending->tasks.pop_front();
    if (pending->tasks.empty()) drained = std::move(pending->whileScheduled);
  }
  const bool more = !drained;
  task();
  return more ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

}  // namespace qor
