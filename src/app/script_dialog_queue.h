// ScriptDialogQueue: answers the page's alert(), confirm() and prompt() with
// modal alerts for the main window, one at a time, in the order the page
// asked. Each script dialog is answered exactly once.
//
// Threads: UI thread only.
#pragma once

#include <webkit/webkit.h>

#include <deque>
#include <memory>

#include "app/alert_window.h"
#include "app/gobject_ptr.h"

namespace qor {

using ScriptDialogPtr = GHandle<WebKitScriptDialog, webkit_script_dialog_unref>;

class ScriptDialogQueue {
 public:
  // `parent` is the main window; it outlives the queue.
  explicit ScriptDialogQueue(GtkWindow* parent);
  // Dialogs still waiting are closed unanswered (confirm false, prompt null).
  ~ScriptDialogQueue();
  ScriptDialogQueue(const ScriptDialogQueue&) = delete;
  ScriptDialogQueue& operator=(const ScriptDialogQueue&) = delete;

  // Keeps a reference to the dialog; its alert is shown from the main loop
  // once every dialog before it has been answered.
  void enqueue(WebKitScriptDialog* dialog);

 private:
  static gboolean onShowNext(gpointer self);
  void scheduleNext();
  void showNext();
  void answer(const AlertAnswer& answer);

  GtkWindow* const parent_;
  std::deque<ScriptDialogPtr> pending_;  // the front one is showing while current_ is set
  std::unique_ptr<AlertWindow> current_;
  guint showSource_ = 0;
};

}  // namespace qor
