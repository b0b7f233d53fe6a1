#include "app/software_rendering.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

#include "base/environment.h"

namespace qor {
namespace {

std::string lowercase(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

// Mesa reads these words as true; anything else leaves the hardware driver.
bool mesaTrue(const std::optional<std::string>& value) {
  if (!value) return false;
  const std::string word = lowercase(*value);
  return word == "1" || word == "true" || word == "y" || word == "yes";
}

bool softwareDriver(const std::optional<std::string>& driver) {
  if (!driver) return false;
  const std::string name = lowercase(*driver);
  return name == "llvmpipe" || name == "softpipe" || name == "swrast";
}

bool gpuRenderNode() {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/dri", error)) {
    if (entry.path().filename().string().starts_with("renderD") &&
        access(entry.path().c_str(), R_OK | W_OK) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

RenderingFacts currentRenderingFacts() {
  return {.gpuRenderNode = gpuRenderNode(),
          .libGLAlwaysSoftware = Environment::variable("LIBGL_ALWAYS_SOFTWARE"),
          .galliumDriver = Environment::variable("GALLIUM_DRIVER")};
}

bool rendersInSoftware(const RenderingFacts& facts) {
  return !facts.gpuRenderNode || mesaTrue(facts.libGLAlwaysSoftware) ||
         softwareDriver(facts.galliumDriver);
}

}  // namespace qor
