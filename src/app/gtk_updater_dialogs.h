// GtkUpdaterDialogs: the updater's alerts and its download progress dialog as
// modal GTK windows over the main window. Alerts are AlertWindows; the
// progress dialog is a small window of its own with a bar and "取消".
//
// Threads: UI thread only, like the updater that calls it.
#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <list>
#include <memory>

#include "app/alert_window.h"
#include "app/gobject_ptr.h"
#include "updater/updater_dialogs.h"

namespace qor {

class GtkUpdaterDialogs final : public UpdaterDialogs {
 public:
  // `parent` is the main window; it outlives this object.
  explicit GtkUpdaterDialogs(GtkWindow* parent);
  // Open dialogs close without calling their callbacks.
  ~GtkUpdaterDialogs() override;
  GtkUpdaterDialogs(const GtkUpdaterDialogs&) = delete;
  GtkUpdaterDialogs& operator=(const GtkUpdaterDialogs&) = delete;

  void showAlert(const UpdateAlert& alert, AlertCompletion completion) override;
  void showProgress(const UpdateProgress& progress, std::function<void()> onCancel) override;
  void setProgressMaximum(double maximum) override;
  void setProgressValue(double value) override;
  void closeProgress() override;

 private:
  static void onClicked(GtkButton* button, gpointer self);
  static gboolean onCloseRequest(GtkWindow* window, gpointer self);
  static gboolean onEscape(GtkWidget* widget, GVariant* arguments, gpointer self);
  static void onDestroy(GtkWidget* widget, gpointer self);
  static gboolean onPulse(gpointer self);

  void cancelProgress();
  void stopPulsing();

  GtkWindow* const parent_;
  std::list<std::unique_ptr<AlertWindow>> alerts_;  // every alert still showing

  GObjectPtr<GtkWindow> progressWindow_;
  GtkProgressBar* progressBar_ = nullptr;  // owned by progressWindow_
  std::function<void()> onCancel_;
  double progressMaximum_ = 0;  // 0: indeterminate
  guint pulseSource_ = 0;
};

}  // namespace qor
