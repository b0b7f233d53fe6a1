#include "app/rendering_mode.h"

#include <glib.h>

#include "app/software_rendering.h"

namespace qor {

bool softwareRendering() {
  static const bool software = rendersInSoftware(currentRenderingFacts());
  return software;
}

// Without GL the display also opens sooner: GDK would otherwise start it only
// to pick the X visual. What the user set in either variable stays.
void chooseToolkitRenderer() {
  if (!softwareRendering()) return;
  g_setenv("GSK_RENDERER", "cairo", false);
  g_setenv("GDK_DEBUG", "gl-disable", false);
}

}  // namespace qor
