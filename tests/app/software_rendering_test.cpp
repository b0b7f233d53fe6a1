#include "app/software_rendering.h"

#include <gtest/gtest.h>

namespace qor {
namespace {

// Software without a GPU node, or where Mesa is told to use a software driver
// in the words it accepts; a GPU node with any other setting is hardware.
TEST(SoftwareRenderingTest, DecidesFromTheGPUNodeAndMesasVariables) {
  const std::pair<RenderingFacts, bool> cases[] = {
      {{.gpuRenderNode = false}, true},
      {{.gpuRenderNode = true}, false},
      {{.gpuRenderNode = true, .libGLAlwaysSoftware = "1"}, true},
      {{.gpuRenderNode = true, .libGLAlwaysSoftware = "TRUE"}, true},
      {{.gpuRenderNode = true, .libGLAlwaysSoftware = "yes"}, true},
      {{.gpuRenderNode = true, .libGLAlwaysSoftware = "0"}, false},
      {{.gpuRenderNode = true, .libGLAlwaysSoftware = ""}, false},
      {{.gpuRenderNode = true, .galliumDriver = "llvmpipe"}, true},
      {{.gpuRenderNode = true, .galliumDriver = "softpipe"}, true},
      {{.gpuRenderNode = true, .galliumDriver = "SWRAST"}, true},
      {{.gpuRenderNode = true, .galliumDriver = "radeonsi"}, false},
      {{.gpuRenderNode = true, .galliumDriver = "llvmpipe2"}, false},
  };
  for (const auto& [facts, software] : cases) {
    EXPECT_EQ(rendersInSoftware(facts), software)
        << facts.gpuRenderNode << " " << facts.libGLAlwaysSoftware.value_or("-") << " "
        << facts.galliumDriver.value_or("-");
  }
}

}  // namespace
}  // namespace qor
