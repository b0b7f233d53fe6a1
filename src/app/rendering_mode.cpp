#include "app/rendering_mode.h"

#include <gtk/gtk.h>

#include "app/software_rendering.h"

namespace qor {
namespace {

bool softwareRendering() {
  static const bool software = rendersInSoftware(currentRenderingFacts());
  return software;
}

}  // namespace

// Without GL the display also opens sooner: GDK would otherwise start it only
// to pick the X visual. What the user set in either variable stays.
void chooseToolkitRenderer() {
  if (!softwareRendering()) return;
  g_setenv("GSK_RENDERER", "cairo", false);
  g_setenv("GDK_DEBUG", "gl-disable", false);
}

void chooseWebViewRendering(WebKitWebView* view) {
  if (!softwareRendering()) return;
  webkit_settings_set_hardware_acceleration_policy(webkit_web_view_get_settings(view),
                                                   WEBKIT_HARDWARE_ACCELERATION_POLICY_NEVER);
  g_object_set(gtk_settings_get_default(), "gtk-overlay-scrolling", false, nullptr);
}

}  // namespace qor
