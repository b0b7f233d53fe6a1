// The layout the shell's own modal windows share: a padded column and the
// Escape key as a way out.
//
// Threads: UI thread only.
#pragma once

#include <gtk/gtk.h>

#include <string>

namespace qor {

// A vertical box with the dialogs' 20-pixel margins on every side.
GtkWidget* newDialogColumn(int spacing);

// A left-aligned label that wraps at about 50 characters, bold if asked.
GtkWidget* newDialogLabel(const std::string& text, bool bold);

// Runs `onEscape` when Escape is pressed anywhere in `window`.
void addEscapeShortcut(GtkWindow* window, GtkShortcutFunc onEscape, gpointer data);

}  // namespace qor
