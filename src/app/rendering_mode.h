// How the window and the web view draw. Where GL is drawn by the CPU (no GPU),
// GTK's GL renderer and WebKit's accelerated compositing cost more than they
// give: the window maps a second or more later, the shell's processes hold
// almost twice the memory, and each fade of the overlay scrollbars keeps a
// core busy for three seconds. There the shell draws with cairo and without
// GL, paints the page without compositing and shows classic scrollbars; with a
// GPU it keeps the toolkit's and the engine's defaults.
//
// Threads: the UI thread.
#pragma once

#include <vector>

namespace qor {

// Whether GL would be drawn by the CPU here; decided once per process.
bool softwareRendering();

// Before GTK realises any window and before the web engine starts: both pick
// their renderer then.
void chooseRenderers();

// The variables chooseRenderers set, not those the user had set: programs
// started for the user go without them.
const std::vector<const char*>& renderersChosenHere();

}  // namespace qor
