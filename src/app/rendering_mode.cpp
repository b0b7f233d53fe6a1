#include "app/rendering_mode.h"

#include <glib.h>

#include <utility>

#include "app/software_rendering.h"

namespace qor {
namespace {

constexpr std::pair<const char*, const char*> softwareRenderers[] = {
    {"GSK_RENDERER", "cairo"},
    {"GDK_DEBUG", "gl-disable"},
    {"WEBKIT_DISABLE_DMABUF_RENDERER", "1"},
    {"WEBKIT_WEB_RENDER_DEVICE_FILE", "/dev/null"},
};

std::vector<const char*>& chosenHere() {
  static std::vector<const char*> names;
  return names;
}

}  // namespace

bool softwareRendering() {
  static const bool software = rendersInSoftware(currentRenderingFacts());
  return software;
}

// Without GL the display also opens sooner: GDK would otherwise start it only
// to pick the X visual. The engine, for its part, would open a GL display of
// its own in this process only to learn which GPU to name to the page process
// and whether frames may come as GPU buffers; that loads Mesa and LLVM here
// (about 10 MiB more for the shell's processes) for nothing, as frames come
// through shared memory when the window draws without GL. Naming no device
// (/dev/null) and turning the GPU buffers off spares it. What the user set in
// any of these variables stays.
void chooseRenderers() {
  if (!softwareRendering()) return;
  for (const auto& [name, value] : softwareRenderers) {
    if (g_getenv(name)) continue;
    g_setenv(name, value, true);
    chosenHere().push_back(name);
  }
}

const std::vector<const char*>& renderersChosenHere() {
  return chosenHere();
}

}  // namespace qor
