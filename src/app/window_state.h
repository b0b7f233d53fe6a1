// WindowState: the main window's size and whether it was maximised, kept
// between runs in the product's folder. The first run, a missing or damaged
// file, and a size that no longer fits the screen all give the first-run size.
//
// Threads: the UI thread.
#pragma once

#include <filesystem>
#include <optional>

#include "base/error.h"

namespace qor {

struct WindowState {
  static constexpr int firstRunWidth = 1280;
  static constexpr int firstRunHeight = 820;

  int width = firstRunWidth;
  int height = firstRunHeight;
  bool maximized = false;

  bool operator==(const WindowState&) const = default;
};

// "<user data>/QOR Velmora/window.ini".
std::filesystem::path windowStateFile();

// The state last saved in `file`, or nothing when there is none or it cannot
// be read as one.
std::optional<WindowState> readWindowState(const std::filesystem::path& file);

// Saves `state` readable by the user only, replacing the file in one step;
// makes the folder (user only) when it is missing.
Result<> writeWindowState(const std::filesystem::path& file, const WindowState& state);

// The state to open with on a screen of `screenWidth` × `screenHeight`: the
// saved one when its size fits, else the first-run size (still maximised if
// it was).
WindowState fitWindowState(const std::optional<WindowState>& saved, int screenWidth,
                           int screenHeight);

}  // namespace qor
