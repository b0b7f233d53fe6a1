// The gateway's command line, folder, environment and output, and its
// relaunch after an exit.
#include <gtest/gtest.h>

#include <fstream>

#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

class GatewayLaunch : public ::testing::Test {
 protected:
  ScopedEnvironment environment = developerMode();
  TestInstallation installation;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();

  bool launchesReach(size_t count, std::chrono::milliseconds timeout = 10s) {
    return eventually([&] { return installation.launches().size() >= count; }, timeout);
  }
};

TEST_F(GatewayLaunch, CommandLineFolderAndEnvironment) {
  environment.set("QOR_TEST_UNTOUCHED", "kept as is")
      .set("NO_PROXY", "proxy.example")
      .set("no_proxy", "proxy.example")
      .set("PYTHONUNBUFFERED", "0")
      .set("QOR_DATA_DIR", "/somewhere/else");
  installation.configureGateway({});
  const auto manager = installation.makeManager(recorder);

  manager->start();
  ASSERT_TRUE(launchesReach(1));

  const auto launch = installation.launches()[0];
  const auto data = installation.data().string();
  EXPECT_EQ(
      commandLineOf(launch["pid"]),
      (std::vector<std::string>{"/usr/bin/python3", "-m", "qor_gateway.main", "--port",
                                std::to_string(installation.gatewayPort), "--litellm-port",
                                std::to_string(installation.litellmPort), "--data-dir", data}));
  EXPECT_EQ(launch["cwd"], TestInstallation::fakeGatewaySources().string());
  const auto& env = launch["env"];
  EXPECT_EQ(env["PYTHONUNBUFFERED"], "1");
  EXPECT_EQ(env["QOR_DATA_DIR"], data);
  EXPECT_EQ(env["NO_PROXY"], "127.0.0.1,localhost");
  EXPECT_EQ(env["no_proxy"], "127.0.0.1,localhost");
  EXPECT_EQ(env["QOR_TEST_UNTOUCHED"], "kept as is");
  EXPECT_EQ(env["QOR_DEV"], "1");
  ASSERT_NE(manager->process(), nullptr);
  EXPECT_EQ(manager->process()->pid(), launch["pid"].get<pid_t>());
}

TEST_F(GatewayLaunch, OutputIsPassedOnWithOnePrefixPerChunk) {
  installation.configureGateway(
      {{"output", {"one\ntwo\n", {{"hex", "e282"}}, "par", "tial\n", "正在运行\n"}}});
  const auto manager = installation.makeManager(recorder);

  manager->start();
  const std::string expected =
      "[sidecar] one\ntwo\n[sidecar] par[sidecar] tial\n[sidecar] 正在运行\n";
  EXPECT_TRUE(eventually([&] { return recorder->diagnostics() == expected; }, 10s))
      << recorder->diagnostics();
}

TEST_F(GatewayLaunch, ExitedGatewayIsRelaunchedWithGrowingDelays) {
  installation.configureGateway({{"exit_code", 3}});
  constexpr double speed = 10;
  const auto manager = installation.makeManager(recorder, speed);

  manager->start();
  ASSERT_TRUE(launchesReach(6, 30s));
  manager->stop();

  const auto launches = installation.launches();
  const double expectedDelays[] = {2, 4, 8, 15, 15};
  for (size_t i = 0; i < 5; ++i) {
    const double gap = launches[i + 1]["time"].get<double>() - launches[i]["time"].get<double>();
    const double delay = expectedDelays[i] / speed;
    EXPECT_GE(gap, delay * 0.95) << "relaunch " << i + 1;
    EXPECT_LT(gap, delay + 1.0) << "relaunch " << i + 1;
  }
  EXPECT_GE(manager->restartAttempts(), 5);
}

TEST_F(GatewayLaunch, StopDuringTheBackOffLaunchesNothing) {
  installation.configureGateway({{"exit_code", 3}});
  const auto manager = installation.makeManager(recorder, 10);

  manager->start();
  ASSERT_TRUE(eventually([&] { return manager->restartAttempts() == 1; }, 10s));
  manager->stop();

  std::this_thread::sleep_for(600ms);  // three times the back-off of 0.2 s
  EXPECT_EQ(installation.launches().size(), 1u);
  EXPECT_EQ(manager->process(), nullptr);
}

TEST_F(GatewayLaunch, FailedRelaunchEndsTheChain) {
  const auto python = installation.root() / "python";
  std::filesystem::create_symlink("/usr/bin/python3", python);
  environment.set("QOR_PYTHON", python.string());
  installation.configureGateway({{"exit_code", 3}});
  const auto manager = installation.makeManager(recorder, 10);

  manager->start();
  ASSERT_TRUE(launchesReach(1));
  std::filesystem::remove(python);

  // The relaunch 0.2 s later fails; nothing follows it, not even 4 s later.
  ASSERT_TRUE(eventually([&] { return manager->restartAttempts() == 1; }, 5s));
  std::this_thread::sleep_for(1500ms);
  EXPECT_EQ(manager->restartAttempts(), 1);
  EXPECT_EQ(installation.launches().size(), 1u);
}

TEST_F(GatewayLaunch, StartFailuresAreReportedOnce) {
  struct Case {
    std::vector<std::pair<std::string, std::optional<std::string>>> variables;
    std::string status;
  };
  const std::string archive = "QOR-runtime-" + SidecarManager::architectureName() + ".zip";
  const Case cases[] = {
      {{{"QOR_PYTHON", std::nullopt}},
       "Sidecar startup failed: QOR_DEV set but QOR_PYTHON missing"},
      {{{"QOR_SIDECAR_DIR", std::nullopt}}, "Sidecar startup failed: sidecar dir unresolved"},
      {{{"QOR_PYTHON", "/nonexistent/python"}},
       "Sidecar startup failed: cannot launch /nonexistent/python: No such file or directory"},
      // Only exactly "1" means developer mode; otherwise the missing archive shows.
      {{{"QOR_DEV", "true"}}, "Sidecar startup failed: Bundled runtime " + archive + " not found"},
      {{{"QOR_DEV", "01"}}, "Sidecar startup failed: Bundled runtime " + archive + " not found"},
  };
  for (const auto& c : cases) {
    ScopedEnvironment scoped;
    for (const auto& [name, value] : c.variables) {
      if (value) {
        scoped.set(name, *value);
      } else {
        scoped.unset(name);
      }
    }
    const auto caseRecorder = std::make_shared<Recorder>();
    const auto manager = installation.makeManager(caseRecorder);
    manager->start();
    EXPECT_TRUE(eventually([&] { return !caseRecorder->statuses().empty(); }, 5s));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(caseRecorder->statuses(), std::vector<std::string>{c.status});
    EXPECT_EQ(manager->process(), nullptr);
  }
  EXPECT_TRUE(installation.launches().empty());
}

TEST_F(GatewayLaunch, DeveloperModeSkipsProvisioning) {
  installation.shipCorruptArchive();
  installation.configureGateway({});
  const auto manager = installation.makeManager(recorder);

  manager->start();
  ASSERT_TRUE(launchesReach(1));
  EXPECT_FALSE(std::filesystem::exists(installation.runtime()));
}

}  // namespace
}  // namespace qor::testing
