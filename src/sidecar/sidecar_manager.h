// SidecarManager supervises the local gateway: it provisions the Python
// runtime, frees the gateway's ports from stale processes, launches the
// gateway, relaunches it when it exits, waits for it to answer and stops it.
//
// Threads: the owner (the UI thread) sets onStatus/onReady, then calls
// start() and later stop(). start() returns at once; its steps run in order
// on a background thread. Both callbacks are always delivered on the UI
// thread through the MainThreadQueue. Output capture, exit handling,
// relaunches and the readiness loop run on background threads.
//
// Beyond giving up, the manager heals what it can: a gateway that answers only
// after the time-out text still gets its page, a relaunched gateway's page is
// reloaded once it answers, and only the current gateway's exit relaunches.
//
// The manager must be owned by a std::shared_ptr: background work keeps it
// alive while it runs. Destroying it does not stop the gateway; stop() does.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "base/child_process.h"
#include "base/error.h"
#include "base/main_thread_queue.h"
#include "base/scaled_clock.h"
#include "sidecar/diagnostics.h"

namespace qor {

inline constexpr const char* logFolderName = "logs";

class SidecarManager : public std::enable_shared_from_this<SidecarManager> {
 public:
  static constexpr int gatewayPort = 8088;
  static constexpr int litellmPort = 8089;

  // The application uses the defaults; tests move the ports, folders and
  // clock out of the way of a real installation.
  struct Settings {
    int gatewayPort = SidecarManager::gatewayPort;
    int litellmPort = SidecarManager::litellmPort;
    double clockSpeed = 1.0;
    // The per-user folder that holds "QOR Velmora"; empty: the desktop's
    // user data folder.
    std::filesystem::path supportDirectory;
    // The folder with the runtime archive and its version; empty: the
    // bundle's own resources.
    std::filesystem::path resourceDirectory;
    DiagnosticSink diagnostics;  // empty: the log in logFolder() and standard error
  };

  explicit SidecarManager(std::shared_ptr<MainThreadQueue> mainThread);
  SidecarManager(std::shared_ptr<MainThreadQueue> mainThread, Settings settings);
  SidecarManager(const SidecarManager&) = delete;
  SidecarManager& operator=(const SidecarManager&) = delete;

  // Set by the owner before start(); called on the UI thread. onReady comes
  // again, with the same address, when a relaunched gateway answers after its
  // page had been shown: the owner loads it afresh.
  std::function<void(const std::string& text)> onStatus;
  std::function<void(const std::string& url)> onReady;

  // UI thread. Returns at once; failures are reported through onStatus.
  void start();
  // Any thread. Blocks for at most about 1.2 s. Nothing is launched after it
  // until the next start().
  void stop();

  std::atomic<std::int64_t> maxBootSeconds{45};
  std::int64_t restartAttempts() const { return restartAttempts_.load(); }
  std::shared_ptr<ChildProcess> process() const;
  // This run's secret: the gateway refuses requests that do not carry it.
  const std::string& gatewayToken() const { return gatewayToken_; }

  // Locations (nothing is created or checked here).
  std::filesystem::path productFolder() const;
  std::filesystem::path runtimeRoot(std::string_view subPath) const;
  std::filesystem::path runtimeDir() const;
  Result<std::filesystem::path> pythonURL() const;
  std::optional<std::string> sidecarDir() const;
  std::filesystem::path dataDirectory() const { return runtimeRoot("data"); }
  std::filesystem::path logFolder() const { return runtimeRoot(logFolderName); }
  static bool developerMode();
  static std::string architectureName();

  // Runtime provisioning and the data backup before an upgrade. The backup
  // fails only when there is data and no complete archive of it was made.
  Result<> prepareRuntimeIfNeeded();
  std::string bundledVersion() const;
  std::optional<std::string> installedVersion() const;
  Result<> backupDataBeforeUpgrade(const std::string& fromVersion);

  // Gateway launch; the relaunch after an exit is scheduled from here.
  Result<> launchGateway();

  // Readiness: queues the polling loop and returns. After the time-out text
  // the loop goes on probing quietly until the gateway is ready or stop().
  void waitForHealth();
  bool httpOK(const std::string& url) const;
  std::optional<std::string> healthzVersion(const std::string& url) const;

  void reapStaleSidecars() const;
  // When another account listens on the gateway port: says so on the boot
  // screen, stops the supervisor (no relaunches) and returns true.
  bool refuseForeignGateway();

  // Any thread. Into the application's log (and standard error), as the
  // gateway's output goes; for the shell's own diagnostics.
  void writeDiagnostic(std::string_view bytes) const;

 private:
  void runStartSequence();
  Result<> startSteps();
  enum class Probe { silent, ready, replaced, refused };

  void relaunchAfterExit(std::uint64_t exitedLaunch);
  void reloadWhenAnswering(std::uint64_t launch);
  bool isCurrentLaunch(std::uint64_t launch) const;
  std::uint64_t currentLaunch() const;
  void forgetCurrentGateway();
  void pollUntilReady(ScaledClock::TimePoint startTime);
  Probe probeReadiness(int& mismatchRetries);
  void keepProbingQuietly(int mismatchRetries);
  std::string gatewayAddress(std::string_view path) const;
  void postStatus(std::string text) const;
  void postReady(std::string url) const;

  const std::shared_ptr<MainThreadQueue> mainThread_;
  const Settings settings_;
  const ScaledClock clock_;
  const std::string gatewayToken_;

  std::atomic<bool> stopping_{false};
  std::atomic<std::int64_t> restartAttempts_{0};
  // Set once onReady has been queued: a relaunched gateway's page is then
  // loaded again.
  std::atomic<bool> readyDelivered_{false};
  mutable std::mutex processMutex_;
  std::shared_ptr<ChildProcess> process_;
  // Numbers the launches; only the exit of the current one relaunches.
  std::uint64_t launchCount_ = 0;
};

}  // namespace qor
