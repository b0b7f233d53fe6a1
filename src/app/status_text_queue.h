// StatusTextQueue: the boot label's texts on their way to the screen. Until
// the boot screen's first frame is drawn every text waits, so that frame shows
// the boot text; then the waiting texts are shown in the order they came, one
// per frame, and a text that comes while some still wait joins them. Once
// none waits, a text is shown as it comes.
//
// Threads: the UI thread.
#pragma once

#include <deque>
#include <optional>
#include <string>

namespace qor {

class StatusTextQueue {
 public:
  // A text for the label: returned when it may be shown now, otherwise kept.
  std::optional<std::string> arrive(std::string text);

  // A frame of the window reached the screen, with whatever the label showed:
  // the next text to show, if one waits.
  std::optional<std::string> framePainted();

  // No frame will come (the window is not drawn): the latest text that
  // waited, if any; from now on every text is shown as it comes.
  std::optional<std::string> skipFrames();

  // Whether frames are still needed to show what waits.
  bool draining() const { return !firstFramePainted_ || showing_; }

 private:
  bool firstFramePainted_ = false;
  bool showing_ = false;  // a text taken from the queue is not on screen yet
  std::deque<std::string> waiting_;
};

}  // namespace qor
