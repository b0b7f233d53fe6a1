// Shared scaffolding for the supervisor tests: a throw-away installation
// (support folder, bundle resources, runtime archive), a main-thread queue
// that records what reaches the UI, and small waiting helpers.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/main_thread_queue.h"
#include "sidecar/sidecar_manager.h"

namespace qor::testing {

using namespace std::chrono_literals;

// Polls `condition` until it holds or `timeout` passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// A port nothing listens on right now.
int freePort();

bool processAlive(pid_t pid);

// The arguments of a running process, its executable first.
std::vector<std::string> commandLineOf(pid_t pid);

// Everything that reaches the "UI": status texts, ready URLs and diagnostics.
class Recorder {
 public:
  void addStatus(const std::string& text);
  void addReady(const std::string& url);
  void addDiagnostic(std::string_view bytes);

  std::vector<std::string> statuses() const;
  std::vector<std::string> readyURLs() const;
  std::string diagnostics() const;
  // The thread ids the callbacks ran on.
  std::vector<std::thread::id> callbackThreads() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> statuses_;
  std::vector<std::string> readyURLs_;
  std::string diagnostics_;
  std::vector<std::thread::id> callbackThreads_;
};

// Runs posted tasks in order on one thread of its own, like a UI loop.
class SerialQueue : public MainThreadQueue {
 public:
  SerialQueue();
  ~SerialQueue() override;
  void post(std::function<void()> task) override;
  std::thread::id threadId() const { return thread_.get_id(); }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  bool closing_ = false;
  std::thread thread_;
};

// A private support folder, bundle resource folder and ports per test.
class TestInstallation {
 public:
  TestInstallation();
  ~TestInstallation();

  std::filesystem::path root() const { return root_; }
  std::filesystem::path support() const { return root_ / "support"; }
  std::filesystem::path resources() const { return root_ / "resources"; }
  std::filesystem::path product() const { return support() / "QOR Velmora"; }
  std::filesystem::path data() const { return product() / "data"; }
  std::filesystem::path runtime() const;
  std::filesystem::path backups() const { return product() / "data-backups"; }
  // The folder holding the stand-in gateway package, for developer mode.
  static std::filesystem::path fakeGatewaySources();

  int gatewayPort = freePort();
  int litellmPort = freePort();

  // Ships a runtime archive of the stand-in gateway with this version.
  void shipRuntime(const std::string& version);
  void shipCorruptArchive();
  void setShippedVersion(const std::string& version);
  // Tells the stand-in gateway how to behave (see its main.py).
  void configureGateway(nlohmann::json config);
  // One JSON object per gateway start.
  std::vector<nlohmann::json> launches() const;
  std::vector<std::string> signalsReceived() const;

  // Returns once every task posted to the UI so far has run.
  void drainQueue();

  std::shared_ptr<SidecarManager> makeManager(const std::shared_ptr<Recorder>& recorder,
                                              double clockSpeed = 1.0);

 private:
  std::filesystem::path root_;
  std::shared_ptr<SerialQueue> queue_ = std::make_shared<SerialQueue>();
  std::vector<std::shared_ptr<SidecarManager>> managers_;
};

// Sets environment variables for one test and restores them afterwards.
class ScopedEnvironment {
 public:
  ScopedEnvironment() = default;
  ScopedEnvironment(ScopedEnvironment&& other) noexcept : saved_(std::exchange(other.saved_, {})) {}
  ScopedEnvironment& operator=(ScopedEnvironment&&) = delete;
  ScopedEnvironment& set(const std::string& name, const std::string& value);
  ScopedEnvironment& unset(const std::string& name);
  ~ScopedEnvironment();

 private:
  void remember(const std::string& name);
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// Developer mode running the stand-in gateway with the machine's Python.
ScopedEnvironment developerMode();

}  // namespace qor::testing
