#include "app/gtk_updater_dialogs.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "app/dialog_layout.h"
#include "app/product_name.h"

namespace qor {
namespace {

constexpr guint pulseMilliseconds = 100;

}  // namespace

GtkUpdaterDialogs::GtkUpdaterDialogs(GtkWindow* parent) : parent_(parent) {}

GtkUpdaterDialogs::~GtkUpdaterDialogs() {
  alerts_.clear();
  onCancel_ = nullptr;
  closeProgress();
}

void GtkUpdaterDialogs::showAlert(const UpdateAlert& alert, AlertCompletion completion) {
  const AlertContent content{
      .messageText = alert.title,
      .informativeText = alert.text.empty() ? std::nullopt : std::optional(alert.text),
      .style = alert.style == UpdateAlertStyle::critical ? AlertStyle::warning
                                                         : AlertStyle::informational,
      .buttons = alert.buttons,
  };
  // The alert removes itself from the list when it ends, then reports.
  const auto slot = alerts_.emplace(alerts_.end());
  *slot = std::make_unique<AlertWindow>(
      parent_, content,
      [this, slot, completion = std::move(completion)](const AlertAnswer& answer) {
        auto report = std::move(completion);
        alerts_.erase(slot);
        report(answer.button);
      });
}

void GtkUpdaterDialogs::showProgress(const UpdateProgress& progress,
                                     std::function<void()> onCancel) {
  closeProgress();
  onCancel_ = std::move(onCancel);
  progressWindow_ = GObjectPtr<GtkWindow>::retain(GTK_WINDOW(
      g_object_new(GTK_TYPE_WINDOW, "accessible-role", GTK_ACCESSIBLE_ROLE_DIALOG, nullptr)));
  GtkWindow* window = progressWindow_.get();
  gtk_window_set_title(window, productName);
  gtk_window_set_modal(window, true);
  gtk_window_set_transient_for(window, parent_);
  gtk_window_set_destroy_with_parent(window, true);
  gtk_window_set_resizable(window, false);

  progressBar_ = GTK_PROGRESS_BAR(gtk_progress_bar_new());
  gtk_widget_set_size_request(GTK_WIDGET(progressBar_), UpdateProgress::barWidth,
                              UpdateProgress::barHeight);
  gtk_widget_set_halign(GTK_WIDGET(progressBar_), GTK_ALIGN_START);
  progressMaximum_ = 0;
  pulseSource_ = g_timeout_add(pulseMilliseconds, onPulse, this);

  GtkWidget* cancel = gtk_button_new_with_label(progress.cancelButton.c_str());
  gtk_widget_set_size_request(cancel, 80, -1);
  gtk_widget_set_halign(cancel, GTK_ALIGN_END);
  g_signal_connect(cancel, "clicked", G_CALLBACK(onClicked), this);

  GtkWidget* layout = newDialogColumn(12);
  gtk_box_append(GTK_BOX(layout), newDialogLabel(progress.title, true));
  gtk_box_append(GTK_BOX(layout), newDialogLabel(progress.text, false));
  gtk_box_append(GTK_BOX(layout), GTK_WIDGET(progressBar_));
  gtk_box_append(GTK_BOX(layout), cancel);
  gtk_window_set_child(window, layout);
  gtk_window_set_default_widget(window, cancel);
  gtk_window_set_focus(window, cancel);

  addEscapeShortcut(window, onEscape, this);
  g_signal_connect(window, "close-request", G_CALLBACK(onCloseRequest), this);
  g_signal_connect(window, "destroy", G_CALLBACK(onDestroy), this);
  gtk_window_present(window);
}

void GtkUpdaterDialogs::setProgressMaximum(double maximum) {
  if (!progressBar_ || progressMaximum_ > 0 || maximum <= 0) return;
  stopPulsing();
  progressMaximum_ = maximum;
  gtk_progress_bar_set_fraction(progressBar_, 0);
}

void GtkUpdaterDialogs::setProgressValue(double value) {
  if (!progressBar_ || progressMaximum_ <= 0) return;
  gtk_progress_bar_set_fraction(progressBar_, std::clamp(value / progressMaximum_, 0.0, 1.0));
}

void GtkUpdaterDialogs::closeProgress() {
  stopPulsing();
  onCancel_ = nullptr;
  progressBar_ = nullptr;
  if (!progressWindow_) return;
  GObjectPtr<GtkWindow> window = std::move(progressWindow_);
  g_signal_handlers_disconnect_by_data(window.get(), this);
  if (!gtk_widget_in_destruction(GTK_WIDGET(window.get()))) gtk_window_destroy(window.get());
}

// The user's ways out all end the download: the button, Escape, the close
// button, and the main window going away.
void GtkUpdaterDialogs::cancelProgress() {
  auto onCancel = std::move(onCancel_);
  closeProgress();
  if (onCancel) onCancel();
}

void GtkUpdaterDialogs::onClicked(GtkButton*, gpointer self) {
  static_cast<GtkUpdaterDialogs*>(self)->cancelProgress();
}

gboolean GtkUpdaterDialogs::onCloseRequest(GtkWindow*, gpointer self) {
  static_cast<GtkUpdaterDialogs*>(self)->cancelProgress();
  return true;  // already destroyed
}

gboolean GtkUpdaterDialogs::onEscape(GtkWidget*, GVariant*, gpointer self) {
  static_cast<GtkUpdaterDialogs*>(self)->cancelProgress();
  return true;
}

void GtkUpdaterDialogs::onDestroy(GtkWidget*, gpointer self) {
  static_cast<GtkUpdaterDialogs*>(self)->cancelProgress();
}

gboolean GtkUpdaterDialogs::onPulse(gpointer self) {
  gtk_progress_bar_pulse(static_cast<GtkUpdaterDialogs*>(self)->progressBar_);
  return G_SOURCE_CONTINUE;
}

void GtkUpdaterDialogs::stopPulsing() {
  if (pulseSource_ != 0) g_source_remove(pulseSource_);
  pulseSource_ = 0;
}

}  // namespace qor
