// Unpacks the shipped runtime archive into the runtime folder on first start
// and after an upgrade, backing the user's data up first when a different
// runtime version is replaced. A runtime missing its interpreter or gateway
// folder is unpacked again; no runtime is replaced without its data backup.
#include <fstream>

#include "base/files.h"
#include "base/text.h"
#include "sidecar/archiver_failures.h"
#include "sidecar/sidecar_manager.h"

namespace qor {
namespace {

constexpr const char* fallbackRuntimeVersion = "0.7.13";
constexpr const char* versionFileName = "QOR_RUNTIME_VERSION";
constexpr const char* readyMarkerName = ".runtime-ok";

}  // namespace

std::string SidecarManager::bundledVersion() const {
  const auto text = readTextFile(settings_.resourceDirectory / versionFileName);
  return text ? trimmed(*text) : fallbackRuntimeVersion;
}

std::optional<std::string> SidecarManager::installedVersion() const {
  const auto text = readTextFile(runtimeDir() / versionFileName);
  if (!text) return std::nullopt;
  auto version = trimmed(*text);
  if (version.empty()) return std::nullopt;
  return version;
}

Result<> SidecarManager::prepareRuntimeIfNeeded() {
  const auto readyMarker = runtimeDir() / readyMarkerName;
  const auto shipped = bundledVersion();
  const auto installed = installedVersion();
  const bool complete = std::filesystem::exists(runtimeDir() / "python" / "bin" / "python") &&
                        std::filesystem::is_directory(runtimeDir() / "sidecar");
  if (std::filesystem::exists(readyMarker) && installed == shipped && complete) return {};

  const auto archiveName = "QOR-runtime-" + architectureName() + ".zip";
  const auto archive = settings_.resourceDirectory / archiveName;
  if (!std::filesystem::exists(archive)) {
    return qorError(1, "Bundled runtime " + archiveName + " not found");
  }

  postStatus(installed ? "正在升级到新版本 " + shipped + "…" : "正在准备首次启动运行环境…");
  if (installed) {
    // The old runtime and its version file stay, so the next start backs up again.
    if (auto backedUp = backupDataBeforeUpgrade(*installed); !backedUp) return backedUp;
  }

  std::error_code ec;
  // A missing or stubborn old runtime is simply unpacked over.
  std::filesystem::remove_all(runtimeDir(), ec);
  std::filesystem::create_directories(runtimeDir(), ec);
  if (ec) return systemError(ec, "cannot create " + runtimeDir().string());

  const auto unzipped = ChildProcess::run({
      .executable = "/usr/bin/unzip",
      .arguments = {"-q", archive.string(), "-d", runtimeDir().string()},
  });
  if (!unzipped) return unzipped.error();
  if (*unzipped != 0) return qorError(2, extractionFailure(*unzipped));

  const auto versionFile = runtimeDir() / versionFileName;
  if (!std::filesystem::exists(versionFile)) {
    (void)writeFileAtomically(versionFile, shipped);  // the next start redoes the unpack
  }
  std::ofstream{readyMarker};  // without the marker the next start unpacks again
  return {};
}

}  // namespace qor
