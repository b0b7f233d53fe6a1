// Installing the Debian package for a bundle the system's package manager
// owns: the downloaded package is verified like an image, then the package
// installer runs on it as root through the privileged runner (the desktop's
// privilege prompt). The package file is removed however that ends; on
// success the application quits and a detached script starts the new
// version, on refusal or failure the application keeps running and says so.
#include <unistd.h>

#include <system_error>
#include <thread>

#include "base/child_process.h"
#include "updater/install_script.h"
#include "updater/update_texts.h"
#include "updater/updater.h"

namespace qor {

namespace texts = updateTexts;

namespace {

// Installs a local package file with the dependencies it needs.
constexpr const char* packageInstaller = "/usr/bin/apt-get";

}  // namespace

// UI thread. Hashing and the installer take a while, so they run on a thread
// of their own and the window keeps answering.
void Updater::installPackage() {
  if (!downloadTarget_ || !asset_) return;
  std::thread([weak = weak_from_this(), package = *downloadTarget_, asset = *asset_,
               version = manifest_ ? manifest_->version : std::string(),
               runner = settings_.privilegedRunner, diagnostics = settings_.diagnostics] {
    auto failure = verifyDownload(package, asset);
    if (!failure) {
      const auto installed = ChildProcess::run({
          .executable = runner,
          .arguments = {packageInstaller, "install", "-y", package.string()},
          .output = OutputMode::discard,
      });
      if (!installed || *installed != 0) {
        diagnostics("the package installer did not install " + package.string() + ": " +
                    (installed ? "exit status " + std::to_string(*installed)
                               : installed.error().description));
        failure = {texts::failedTitle,
                   texts::packageFailedBefore + version + texts::packageFailedAfter};
      }
    }
    std::error_code ignored;  // best effort: gone already is fine
    std::filesystem::remove(package, ignored);
    if (const auto self = weak.lock()) {
      self->onMain([failure = std::move(failure)](Updater& updater) mutable {
        updater.packageInstallEnded(std::move(failure));
      });
    }
  }).detach();
}

// UI thread.
void Updater::packageInstallEnded(std::optional<std::pair<std::string, std::string>> failure) {
  cleanupDmg();
  std::optional<std::filesystem::path> script;
  if (!failure) {
    std::error_code ignored;  // best effort: without the folder the script just logs nothing
    std::filesystem::create_directories(updateLog().parent_path(), ignored);
    const RelaunchScript relaunch{
        .processId = settings_.processToAwait != 0 ? settings_.processToAwait : getpid(),
        .bundle = settings_.bundleRoot,
        .log = updateLog(),
    };
    script = writeHelperScript(relaunch.text());
    if (!script) failure = {texts::failedTitle, texts::scriptFailed};
  }
  if (failure) {
    showInfo(failure->first, failure->second);
    return;
  }
  offerRestart(*script, texts::installedTitle);
}

}  // namespace qor
