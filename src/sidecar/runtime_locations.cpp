// Where the supervisor keeps the runtime, the gateway and the user's data.
#include <sys/utsname.h>

#include <string>

#include "base/environment.h"
#include "base/user_data.h"
#include "sidecar/sidecar_manager.h"

namespace qor {

bool SidecarManager::developerMode() {
  return Environment::variable("QOR_DEV") == "1";
}

std::string SidecarManager::architectureName() {
  utsname names{};
  uname(&names);
  const std::string machine = names.machine;
  return machine == "arm64" || machine == "aarch64" ? "arm64" : "x64";
}

std::filesystem::path SidecarManager::productFolder() const {
  return settings_.supportDirectory / productFolderName;
}

std::filesystem::path SidecarManager::runtimeRoot(std::string_view subPath) const {
  return productFolder() / subPath;
}

std::filesystem::path SidecarManager::runtimeDir() const {
  return runtimeRoot("runtime") / architectureName();
}

Result<std::filesystem::path> SidecarManager::pythonURL() const {
  if (!developerMode()) return runtimeDir() / "python" / "bin" / "python";
  const auto python = Environment::variable("QOR_PYTHON");
  if (!python) return qorError(3, "QOR_DEV set but QOR_PYTHON missing");
  // Resolved here: the child changes into the gateway folder before it starts.
  return std::filesystem::absolute(*python);
}

std::optional<std::string> SidecarManager::sidecarDir() const {
  if (!developerMode()) return (runtimeDir() / "sidecar").string();
  return Environment::variable("QOR_SIDECAR_DIR");
}

}  // namespace qor
