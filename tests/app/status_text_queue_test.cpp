// The boot label's texts: the first frame shows the boot text, and every text
// that waited for it reaches the screen after it, in order.
#include "app/status_text_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qor {
namespace {

struct Screen {
  std::vector<std::string> frames;  // the label's text in each frame drawn
  std::string label;                // the label's text at the end
};

// Plays `events` on a label that starts with the boot text: "|" is a frame
// drawn, "~" the window found not to be drawn, anything else a text arriving.
Screen play(const std::vector<std::string>& events) {
  StatusTextQueue queue;
  Screen screen{.label = "boot"};
  auto show = [&](const std::optional<std::string>& text) {
    if (text) screen.label = *text;
  };
  for (const auto& event : events) {
    if (event == "|") {
      screen.frames.push_back(screen.label);
      show(queue.framePainted());
    } else if (event == "~") {
      show(queue.skipFrames());
    } else {
      show(queue.arrive(event));
    }
  }
  return screen;
}

TEST(StatusTextQueue, EveryTextBeforeTheFirstFrameIsDrawnInOrderAfterIt) {
  const struct {
    std::vector<std::string> events;
    std::vector<std::string> frames;
    std::string label;
  } cases[] = {
      // Texts that came before the window was drawn, one frame each.
      {{"a", "b", "c", "|", "|", "|", "|"}, {"boot", "a", "b", "c"}, "c"},
      // One that comes while others wait joins them at the end.
      {{"a", "|", "b", "|", "|"}, {"boot", "a", "b"}, "b"},
      {{"a", "b", "|", "c", "|", "|", "|"}, {"boot", "a", "b", "c"}, "c"},
      // The last one taken has not been drawn yet: the next waits for it.
      {{"a", "|", "b", "c", "|", "|", "|"}, {"boot", "a", "b", "c"}, "c"},
      // Once all were drawn, texts are shown as they come.
      {{"a", "|", "|", "b", "c"}, {"boot", "a"}, "c"},
      {{"|", "a", "b", "|"}, {"boot", "b"}, "b"},
      // A window that is never drawn shows the latest at once, and later ones as they come.
      {{"a", "b", "~"}, {}, "b"},
      {{"a", "b", "~", "c", "d"}, {}, "d"},
      {{"~", "a"}, {}, "a"},
  };
  for (const auto& [events, frames, label] : cases) {
    const Screen screen = play(events);
    EXPECT_EQ(screen.frames, frames) << testing::PrintToString(events);
    EXPECT_EQ(screen.label, label) << testing::PrintToString(events);
  }
}

}  // namespace
}  // namespace qor
