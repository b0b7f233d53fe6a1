// Whether GL would be drawn by the CPU here: no GPU render node the user may
// open, or Mesa told to use a software driver (llvmpipe, softpipe, swrast).
// Reads only the environment and /dev/dri, so it can be asked before the
// toolkit loads any GL.
#pragma once

#include <optional>
#include <string>

namespace qor {

struct RenderingFacts {
  bool gpuRenderNode = false;                      // a /dev/dri/renderD* we can open
  std::optional<std::string> libGLAlwaysSoftware;  // Mesa's LIBGL_ALWAYS_SOFTWARE
  std::optional<std::string> galliumDriver;        // Mesa's GALLIUM_DRIVER
};

RenderingFacts currentRenderingFacts();
bool rendersInSoftware(const RenderingFacts& facts);

}  // namespace qor
