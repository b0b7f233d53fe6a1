// How the updater talks to the user: modal alerts and one download progress
// dialog. The application implements this with its toolkit; the updater
// itself knows no toolkit, so its logic runs and is tested without a display.
//
// Threads: the updater calls every operation on the UI thread and returns
// at once. Implementations call the callbacks on the UI thread, never from
// inside the call that handed them over.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qor {

enum class UpdateAlertStyle { informational, critical };

struct UpdateAlert {
  std::string title;  // the message text
  std::string text;   // the informative text; may hold line breaks
  UpdateAlertStyle style = UpdateAlertStyle::informational;
  std::vector<std::string> buttons;  // in this order; the first is the default
};

struct UpdateProgress {
  std::string title;
  std::string text;
  std::string cancelButton;  // the dialog's only button
  // The bar's size in pixels.
  static constexpr int barWidth = 260;
  static constexpr int barHeight = 14;
};

class UpdaterDialogs {
 public:
  virtual ~UpdaterDialogs() = default;

  // The index of the pressed button, or none when the alert ended another
  // way (closed, Escape).
  using AlertCompletion = std::function<void(std::optional<std::size_t> button)>;

  // Shows a modal alert; `completion` runs exactly once, when it ends.
  virtual void showAlert(const UpdateAlert& alert, AlertCompletion completion) = 0;

  // Shows the modal progress dialog with an animated indeterminate bar.
  // `onCancel` runs once when the user presses the cancel button or
  // dismisses the dialog any other way, but never after closeProgress().
  virtual void showProgress(const UpdateProgress& progress, std::function<void()> onCancel) = 0;

  // Makes the bar determinate, from 0 to `maximum`; at most once per dialog.
  virtual void setProgressMaximum(double maximum) = 0;

  // Moves the determinate bar to `value` (between 0 and the maximum).
  virtual void setProgressValue(double value) = 0;

  // Closes the progress dialog from code; `onCancel` does not run.
  virtual void closeProgress() = 0;
};

}  // namespace qor
