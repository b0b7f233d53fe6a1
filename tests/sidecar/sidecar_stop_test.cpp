// Stopping the gateway: SIGTERM first, SIGKILL only for a gateway that
// ignores it; stops that find nothing to stop; a manager that goes away
// without stopping; a shell that dies without stopping; and a stop that
// arrives while the start sequence is still running.
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <regex>

#include "base/child_process.h"
#include "sidecar/process_table.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

using Clock = std::chrono::steady_clock;

std::string signalLine(pid_t pid, int signalNumber) {
  return std::to_string(pid) + " " + std::to_string(signalNumber);
}

std::vector<std::string> linesOf(const std::filesystem::path& file) {
  std::vector<std::string> lines;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Kills a process this test started, however the test ends.
class KillOnExit {
 public:
  explicit KillOnExit(std::shared_ptr<ChildProcess> child) : child_(std::move(child)) {}
  KillOnExit(const KillOnExit&) = delete;
  KillOnExit& operator=(const KillOnExit&) = delete;
  ~KillOnExit() {
    if (!child_) return;
    child_->kill();
    child_->waitForExitWithTimeout(10s);
  }

 private:
  std::shared_ptr<ChildProcess> child_;
};

// Output of a child, collected on its reader thread.
class CapturedOutput {
 public:
  void append(std::string_view bytes) {
    std::lock_guard lock(mutex_);
    text_.append(bytes);
  }
  std::string text() const {
    std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  mutable std::mutex mutex_;
  std::string text_;
};

class SidecarStop : public ::testing::Test {
 protected:
  ScopedEnvironment environment = developerMode();
  TestInstallation installation;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();

  // Starts the manager and returns its gateway once that answers.
  std::shared_ptr<ChildProcess> startUntilReady(SidecarManager& manager) {
    manager.start();
    EXPECT_TRUE(eventually([&] { return !recorder->readyURLs().empty(); }, 60s))
        << recorder->diagnostics();
    return manager.process();
  }
};

TEST_F(SidecarStop, AGatewayThatExitsOnTerminateIsNeverKilled) {
  installation.configureGateway({});
  // A slower clock stretches the 1.2 s grace to 2.4 s.
  const auto manager = installation.makeManager(recorder, 0.5);
  const auto gateway = startUntilReady(*manager);
  ASSERT_TRUE(gateway);

  const auto started = Clock::now();
  manager->stop();
  const auto took = Clock::now() - started;

  // Exit status 0 comes from the gateway's own SIGTERM handler; a SIGKILL
  // would show as 137.
  EXPECT_EQ(gateway->waitForExitWithTimeout(10s), 0);
  EXPECT_EQ(installation.signalsReceived(), std::vector{signalLine(gateway->pid(), SIGTERM)});
  EXPECT_EQ(manager->process(), nullptr);
  EXPECT_LT(took, 2s) << "stop() waited out the grace period for a gateway that had exited";
  // The exit this stop caused is not taken for a crash.
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(manager->restartAttempts(), 0);
  EXPECT_EQ(installation.launches().size(), 1u);
}

TEST_F(SidecarStop, AGatewayThatIgnoresTerminateIsKilledAfterTheGrace) {
  installation.configureGateway({{"ignore_term", true}});
  const auto manager = installation.makeManager(recorder);
  const auto gateway = startUntilReady(*manager);
  ASSERT_TRUE(gateway);

  const auto started = Clock::now();
  manager->stop();
  const auto took = Clock::now() - started;

  EXPECT_EQ(gateway->waitForExitWithTimeout(10s), 128 + SIGKILL);
  EXPECT_GE(took, 1100ms) << "SIGKILL came before the 1.2 s grace";
  EXPECT_EQ(installation.signalsReceived(), std::vector{signalLine(gateway->pid(), SIGTERM)});
  EXPECT_EQ(manager->process(), nullptr);
}

TEST_F(SidecarStop, StopAfterTheGatewayExitedSignalsNothing) {
  installation.configureGateway({{"exit_code", 0}});
  // Slow enough that the relaunch (20 s away) and the grace (12 s) are far off.
  const auto manager = installation.makeManager(recorder, 0.1);
  manager->start();
  ASSERT_TRUE(eventually(
      [&] {
        const auto gateway = manager->process();
        return gateway && !gateway->isRunning();
      },
      30s));

  const auto started = Clock::now();
  manager->stop();
  EXPECT_LT(Clock::now() - started, 3s) << "stop() waited for a gateway that had already exited";
  EXPECT_EQ(manager->process(), nullptr);
  EXPECT_TRUE(installation.signalsReceived().empty());
}

TEST_F(SidecarStop, EarlyAndRepeatedStopsAreHarmless) {
  installation.configureGateway({});
  const auto manager = installation.makeManager(recorder);
  manager->stop();
  EXPECT_EQ(manager->process(), nullptr);

  // The early stop does not keep a later start from launching.
  const auto gateway = startUntilReady(*manager);
  ASSERT_TRUE(gateway);
  manager->stop();
  manager->stop();

  EXPECT_EQ(gateway->waitForExitWithTimeout(10s), 0);
  EXPECT_EQ(installation.signalsReceived(), std::vector{signalLine(gateway->pid(), SIGTERM)});
  EXPECT_EQ(manager->process(), nullptr);
  EXPECT_EQ(installation.launches().size(), 1u);
}

TEST_F(SidecarStop, DestroyingTheManagerLeavesTheGatewayRunning) {
  installation.configureGateway({});
  // Built here rather than by the installation, which would keep it alive.
  auto manager = std::make_shared<SidecarManager>(
      std::make_shared<SerialQueue>(),
      SidecarManager::Settings{
          .gatewayPort = installation.gatewayPort,
          .litellmPort = installation.litellmPort,
          .supportDirectory = installation.support(),
          .resourceDirectory = installation.resources(),
          .diagnostics = [recorder =
                              recorder](std::string_view bytes) { recorder->addDiagnostic(bytes); },
      });
  manager->onReady = [recorder = recorder](const std::string& url) { recorder->addReady(url); };
  const auto gateway = startUntilReady(*manager);
  ASSERT_TRUE(gateway);
  KillOnExit cleanup(gateway);

  const std::weak_ptr<SidecarManager> watcher = manager;
  manager.reset();
  ASSERT_TRUE(eventually([&] { return watcher.expired(); }, 10s))
      << "something still holds the manager";

  EXPECT_EQ(gateway->waitForExitWithTimeout(500ms), std::nullopt);
  EXPECT_TRUE(installation.signalsReceived().empty());
}

TEST_F(SidecarStop, TheGatewayDiesWithAHostKilledWithoutStopping) {
  installation.configureGateway({});
  const auto output = std::make_shared<CapturedOutput>();
  auto launched = ChildProcess::launch({
      .executable = SIDECAR_HOST,
      .arguments = {installation.support().string(), installation.resources().string(),
                    std::to_string(installation.gatewayPort),
                    std::to_string(installation.litellmPort)},
      .output = OutputMode::capture,
      .onOutput = [output](std::string_view bytes) { output->append(bytes); },
      .terminateWithParent = true,
  });
  ASSERT_TRUE(launched) << launched.error().description;
  const auto host = launched.value();
  KillOnExit cleanup(host);

  const std::regex announced(R"(gateway-pid (\d+)\n)");
  std::smatch match;
  std::string text;
  ASSERT_TRUE(eventually(
      [&] {
        text = output->text();
        return std::regex_search(text, match, announced);
      },
      60s))
      << text;
  const pid_t gateway = std::stoi(match[1]);
  ASSERT_EQ(installation.launches().size(), 1u);
  EXPECT_EQ(installation.launches()[0]["pid"], gateway);
  ASSERT_TRUE(processAlive(gateway));

  host->kill();
  ASSERT_EQ(host->waitForExitWithTimeout(10s), 128 + SIGKILL);
  EXPECT_TRUE(eventually([&] { return !processAlive(gateway); }, 1s))
      << "the gateway outlived its host";
  EXPECT_EQ(installation.signalsReceived(), std::vector{signalLine(gateway, SIGTERM)});
}

TEST_F(SidecarStop, StopDuringTheStartSequenceLaunchesNothing) {
  // A stale gateway of ours that ignores SIGTERM keeps the start sequence in
  // its reaping step for about 2 s.
  const auto staleData = installation.root() / "stale" / "QOR Velmora" / "data";
  std::filesystem::create_directories(staleData);
  std::ofstream(staleData / "fake-gateway.json")
      << nlohmann::json{{"ignore_term", true}, {"shipped_version", "0.0.1"}}.dump();
  auto launched = ChildProcess::launch({
      .executable = "/usr/bin/python3",
      .arguments = {"-m", "qor_gateway.main", "--port", std::to_string(installation.gatewayPort),
                    "--litellm-port", std::to_string(installation.litellmPort), "--data-dir",
                    staleData.string()},
      .workingDirectory = TestInstallation::fakeGatewaySources(),
      .output = OutputMode::discard,
  });
  ASSERT_TRUE(launched) << launched.error().description;
  const auto stale = launched.value();
  KillOnExit cleanup(stale);
  ASSERT_TRUE(eventually(
      [&] { return pidsListening(installation.gatewayPort) == std::vector{stale->pid()}; }, 30s));

  installation.configureGateway({});
  const auto manager = installation.makeManager(recorder);
  manager->start();
  ASSERT_TRUE(eventually([&] { return !linesOf(staleData / "signals.log").empty(); }, 30s))
      << "the start sequence never reached the reaping step";
  manager->stop();

  // The sweep kills the stale gateway and the sequence moves on to the launch.
  EXPECT_EQ(stale->waitForExitWithTimeout(30s), 128 + SIGKILL);
  std::this_thread::sleep_for(2s);
  installation.drainQueue();

  EXPECT_TRUE(installation.launches().empty());
  EXPECT_EQ(manager->process(), nullptr);
  EXPECT_TRUE(recorder->statuses().empty());
  EXPECT_TRUE(recorder->readyURLs().empty());
  EXPECT_NE(recorder->diagnostics().find(
                "[sidecar] reaping stale sidecar pid=" + std::to_string(stale->pid()) +
                " on port " + std::to_string(installation.gatewayPort) + ": "),
            std::string::npos)
      << recorder->diagnostics();
}

}  // namespace
}  // namespace qor::testing
