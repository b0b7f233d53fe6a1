// Scaffolding for the supervisor tests: a throw-away installation whose
// gateway is the stand-in in fake_gateway/, and what reached the UI.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "sidecar/sidecar_manager.h"
#include "support/eventually.h"
#include "support/temporary_folder.h"

namespace qor::testing {

using namespace std::chrono_literals;
using json = nlohmann::json;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

inline const std::string shippedVersion = "0.8.0";

int freePort();  // never the same one twice
std::vector<std::string> linesOf(const fs::path& file);

// Holds posted tasks until the test's own thread runs them, like a UI loop.
class TestQueue : public MainThreadQueue {
 public:
  void post(std::function<void()> task) override;
  void run();

 private:
  std::mutex mutex_;
  std::vector<std::function<void()>> tasks_;
};

// What reached the UI, and the diagnostics (passed through the queue too).
struct Record {
  std::vector<std::string> statuses, ready;
  std::string diagnostics;
};

// A private support folder, resource folder (shipping `shippedVersion`),
// ports and environment; the stand-in gateway obeys <data>/fake-gateway.json.
class SidecarTest : public ::testing::Test {
 protected:
  SidecarTest();
  ~SidecarTest() override;

  fs::path support() const { return root_ / "support"; }
  fs::path resources() const { return root_ / "resources"; }
  fs::path product() const { return support() / "QOR Velmora"; }
  fs::path data() const { return product() / "data"; }
  fs::path backups() const { return product() / "data-backups"; }
  fs::path runtime() const { return product() / "runtime" / SidecarManager::architectureName(); }
  fs::path archive() const;

  void setEnv(const std::string& name, const char* value);  // nullptr removes it
  void developerMode();
  void shipRuntime(const std::string& version);  // the stand-in as a runtime archive
  void configureGateway(json config, fs::path dataDir = {});
  std::vector<json> launches() const;  // one object per gateway start
  std::vector<std::string> signals() const { return linesOf(data() / "signals.log"); }
  // A manager on this installation; record() then shows what it reported.
  std::shared_ptr<SidecarManager> makeManager(double clockSpeed = 1.0);
  Record record();
  // Whether every thread of `manager` has let go of it: only the caller's copy and this
  // fixture's remain. A thread that has ended can report nothing more.
  bool threadsEnded(const std::shared_ptr<SidecarManager>& manager) const {
    return manager.use_count() == 2;
  }
  // A child killed when the test ends.
  std::shared_ptr<ChildProcess> launch(LaunchOptions options);
  // The stand-in outside any manager, listening on `port` when this returns.
  std::shared_ptr<ChildProcess> runStandIn(const fs::path& dataDir, int port);

  const int gatewayPort = freePort(), litellmPort = freePort();

 private:
  const TemporaryFolder folder_{"qor-sidecar-test"};
  const fs::path& root_ = folder_.path();
  std::vector<std::pair<std::string, std::optional<std::string>>> savedEnvironment_;
  std::shared_ptr<TestQueue> queue_;
  std::shared_ptr<Record> record_;
  std::vector<std::shared_ptr<SidecarManager>> managers_;
  std::vector<std::shared_ptr<ChildProcess>> children_;
};

}  // namespace qor::testing
