// Updater keeps the application up to date: it fetches the update manifest
// and its signature from the update server, refuses a manifest that is not
// signed by a key pinned in the application, tells the user what it found,
// downloads the image for this machine from the trusted host, verifies it
// (SHA-256, then size), extracts it into a private staging folder and hands
// over to a detached install script that replaces the bundle after the
// application has quit. A bundle this user cannot replace (the one the
// system's package manager owns) takes the machine's Debian package instead,
// verified the same way and installed by the package installer through the
// privileged runner, or is left to the package manager when there is none.
//
// Threads: the owner and the dialogs use the UI thread. Manifest requests,
// downloads, timers, hashing and extraction run on background threads and
// reach the updater's state only by posting to the MainThreadQueue, so every
// field below is touched on the UI thread alone (except `silent_`).
//
// The application keeps one Updater for its whole run. It must be owned by
// a std::shared_ptr: background work holds it weakly and does nothing once
// it is gone.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/http_client.h"
#include "base/main_thread_queue.h"
#include "base/scaled_clock.h"
#include "updater/manifest_signature.h"
#include "updater/qor_manifest.h"
#include "updater/update_config.h"
#include "updater/updater_dialogs.h"
#include "updater/version_rules.h"

namespace qor {

class Updater : public std::enable_shared_from_this<Updater> {
 public:
  // The bundle folder inside the update image.
  static constexpr const char* appNameInDmg = "QOR Velmora";
  static constexpr const char* manifestPath = "/qor/latest.json";

  // The application uses the defaults; tests point the updater at their own
  // server, folders, machine and clock.
  struct Settings {
    std::string host = updateHost;  // "name" or "name:port"
    std::filesystem::path extraCAFile = updateCAFile;
    std::chrono::milliseconds idleTimeout{std::chrono::seconds(20)};
    std::chrono::milliseconds totalTimeout{std::chrono::seconds(600)};
    std::filesystem::path temporaryDirectory;  // empty: $TMPDIR, else /tmp
    std::filesystem::path bundleRoot;          // empty: the running bundle
    std::filesystem::path supportDirectory;    // empty: the desktop's user data folder
    std::string machineName;                   // empty: this machine's (uname)
    pid_t processToAwait = 0;                  // for the install script; 0: this process
    double clockSpeed = 1.0;
    std::vector<std::string> trustedKeys = pinnedUpdateKeys();  // base64 Ed25519 public keys
    // Runs the package installer as root, for a bundle the user cannot replace.
    std::filesystem::path privilegedRunner = qor::privilegedRunner;
    // Takes one line, on a request's thread; empty: standard error, "[updater] " first.
    std::function<void(const std::string&)> diagnostics;
  };

  Updater(std::shared_ptr<MainThreadQueue> mainThread, std::shared_ptr<UpdaterDialogs> dialogs);
  Updater(std::shared_ptr<MainThreadQueue> mainThread, std::shared_ptr<UpdaterDialogs> dialogs,
          Settings settings);
  Updater(const Updater&) = delete;
  Updater& operator=(const Updater&) = delete;

  // Set by the owner; called on the UI thread 0.6 s after the install script
  // has started. Quits the application through its normal path, which also
  // stops the gateway; the script waits for this process to end.
  std::function<void()> terminateApplication;

  // Any thread. Whether this build has an update server; without one no check
  // runs, neither the automatic one nor the user's.
  bool updatesConfigured() const { return !settings_.host.empty(); }

  // UI thread, once at start. Tells of an install that failed in the last
  // run, then schedules one silent check 3 s from now (no repetition).
  void scheduleAutomaticCheck();
  // UI thread. A check that reports every outcome (the menu's "检查更新…").
  void checkForUpdates();

  // Any thread.
  const std::string& manifestURL() const { return manifestURL_; }
  const std::string& expectedHost() const { return expectedHost_; }
  std::string currentVersion() const;
  std::optional<std::string> platformKey() const;
  static bool isNewer(std::string_view candidate, std::string_view reference) {
    return qor::isNewer(candidate, reference);
  }

  // UI thread. The last decoded manifest and the asset it offered this
  // machine (its Debian package when the bundle cannot be replaced in place);
  // a later failing check leaves both as they were.
  const std::optional<QorManifest>& manifest() const { return manifest_; }
  const std::optional<QorAsset>& asset() const { return asset_; }

 private:
  struct InstallPreparation;

  // Checking (updater.cpp).
  void check(bool silent);
  void completeCheck(bool silent, const Result<HttpResponse>& response,
                     const HttpResponse& signature);
  void applyManifest(QorManifest manifest);
  void showPackageManaged();
  void showInfo(const std::string& title, const std::string& text);
  void onMain(std::function<void(Updater&)> work);

  // Downloading (update_download.cpp).
  void beginDownload();
  void cancelDownload();
  void showDownloadProgress(unsigned generation, std::int64_t written, std::int64_t expected);
  void downloadEnded(unsigned generation, Result<std::filesystem::path> file);
  void closeProgress();

  // Installing the Debian package (package_install.cpp).
  void installPackage();
  void packageInstallEnded(std::optional<std::pair<std::string, std::string>> failure);

  // Verifying and handing over (install_hand_off.cpp).
  void proceedInstall();
  // The dialog (title, text) for a download that is not the asset.
  static std::optional<std::pair<std::string, std::string>> verifyDownload(
      const std::filesystem::path& file, const QorAsset& asset);
  static InstallPreparation prepareInstall(const std::filesystem::path& image,
                                           const QorAsset& asset,
                                           const std::filesystem::path& temporaryDirectory);
  void installPrepared(InstallPreparation preparation);
  std::optional<std::filesystem::path> writeInstallHelper(pid_t pid,
                                                          const std::filesystem::path& srcApp,
                                                          const std::filesystem::path& dstApp,
                                                          const std::filesystem::path& mount,
                                                          const std::filesystem::path& dmg);
  std::optional<std::filesystem::path> writeHelperScript(const std::string& text) const;
  std::filesystem::path updateLog() const;
  std::filesystem::path failureMark() const;
  // The version whose package-manager notice was shown: the automatic check
  // does not show it again.
  std::filesystem::path noticeMark() const;
  void reportFailedInstall();
  // "立即重启" under `titleBefore` and the version: the script starts, the application quits.
  void offerRestart(const std::filesystem::path& script, const char* titleBefore);
  void launchDetached(const std::filesystem::path& script);
  void scheduleTermination();
  static void detach(const std::filesystem::path& mount);
  void cleanupDmg();

  const std::shared_ptr<MainThreadQueue> mainThread_;
  const std::shared_ptr<UpdaterDialogs> dialogs_;
  const Settings settings_;
  const ScaledClock clock_;
  const HttpsTransferOptions transferOptions_;
  const std::string manifestURL_;
  const std::string expectedHost_;

  // The flag of the most recently started check; written by whichever
  // thread starts a check.
  std::atomic<bool> silent_{false};

  std::optional<QorManifest> manifest_;
  std::optional<QorAsset> asset_;
  bool assetIsPackage_ = false;  // asset_ is the Debian package, for a bundle not replaceable
  std::shared_ptr<HttpsDownload> downloadTask_;
  std::optional<std::filesystem::path> downloadTarget_;
  // The version whose install failed in the last run: the automatic check
  // does not offer it again.
  std::optional<std::string> failedVersion_;
  unsigned downloadGeneration_ = 0;  // tells the current download's events from stale ones
  bool progressShown_ = false;
  bool progressDeterminate_ = false;
};

}  // namespace qor
