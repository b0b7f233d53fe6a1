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

// A renderer the user chose through GSK_RENDERER stays.
void chooseToolkitRenderer() {
  if (softwareRendering()) g_setenv("GSK_RENDERER", "cairo", false);
}

void chooseWebViewRendering(WebKitWebView* view) {
  if (!softwareRendering()) return;
  webkit_settings_set_hardware_acceleration_policy(webkit_web_view_get_settings(view),
                                                   WEBKIT_HARDWARE_ACCELERATION_POLICY_NEVER);
  g_object_set(gtk_settings_get_default(), "gtk-overlay-scrolling", false, nullptr);
}

}  // namespace qor
