#include "app/desktop_handler.h"

#include <gtk/gtk.h>

#include "app/gobject_ptr.h"
#include "app/rendering_mode.h"

namespace qor {

void openWithDefaultHandler(const std::string& uri) {
  GObjectPtr<GdkAppLaunchContext> context = GObjectPtr<GdkAppLaunchContext>::adopt(
      gdk_display_get_app_launch_context(gdk_display_get_default()));
  for (const char* name : renderersChosenHere()) {
    g_app_launch_context_unsetenv(G_APP_LAUNCH_CONTEXT(context.get()), name);
  }
  g_app_info_launch_default_for_uri(uri.c_str(), G_APP_LAUNCH_CONTEXT(context.get()), nullptr);
}

}  // namespace qor
