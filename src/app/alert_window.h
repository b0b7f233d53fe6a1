// AlertWindow: a small modal window in the manner of a desktop alert: a bold
// message line, an optional informative text, an optional single-line text
// field, and a row of buttons whose first one is the default. Used for the
// page's script dialogs.
//
// Threads: UI thread only.
#pragma once

#include <gtk/gtk.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/gobject_ptr.h"

namespace qor {

enum class AlertStyle { warning, informational };

struct AlertContent {
  std::string messageText;
  std::optional<std::string> informativeText;
  AlertStyle style = AlertStyle::informational;
  std::vector<std::string> buttons;      // the first is the default button
  std::optional<std::string> fieldText;  // a text field with this initial value
};

struct AlertAnswer {
  std::optional<std::size_t> button;  // none: ended another way (Escape, closed)
  std::string fieldText;              // the field's value when the alert ended
};

class AlertWindow {
 public:
  using Completion = std::function<void(const AlertAnswer&)>;

  // Shows the alert modal for `parent`. `completion` runs exactly once, when
  // the alert ends; it may destroy this object. Destroying the object before
  // then closes the alert without calling it.
  AlertWindow(GtkWindow* parent, const AlertContent& content, Completion completion);
  ~AlertWindow();
  AlertWindow(const AlertWindow&) = delete;
  AlertWindow& operator=(const AlertWindow&) = delete;

  static constexpr int fieldWidth = 280;
  static constexpr int fieldHeight = 24;

 private:
  static void onClicked(GtkButton* button, gpointer self);
  static gboolean onCloseRequest(GtkWindow* window, gpointer self);
  static gboolean onEscape(GtkWidget* widget, GVariant* arguments, gpointer self);
  static void onDestroy(GtkWidget* widget, gpointer self);

  void finish(std::optional<std::size_t> button);
  GtkWidget* buildButtons(const std::vector<std::string>& titles);

  GObjectPtr<GtkWindow> window_;
  GtkWidget* field_ = nullptr;          // owned by window_
  GtkWidget* defaultButton_ = nullptr;  // owned by window_
  Completion completion_;
  bool finished_ = false;
};

}  // namespace qor
