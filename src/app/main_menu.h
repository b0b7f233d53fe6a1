// The menu bar: the application menu, "编辑" and "窗口", with their
// keyboard shortcuts. The actions themselves belong to AppDelegate
// ("app.*" on the application, "win.*" on the main window).
#pragma once

#include <gtk/gtk.h>

#include "app/gobject_ptr.h"

namespace qor {

// Builds the menu model and registers each item's shortcut with `app`.
// Without an update server "检查更新…" says that updates are not configured.
GObjectPtr<GMenuModel> buildMainMenu(GtkApplication* app, bool updatesConfigured);

}  // namespace qor
