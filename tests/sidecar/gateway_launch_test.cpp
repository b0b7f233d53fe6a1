// The gateway's command line, environment and output, its relaunch after an
// exit, developer mode and the start failures.
#include <fstream>
#include <map>
#include <tuple>

#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

using GatewayLaunch = SidecarTest;

TEST_F(GatewayLaunch, CommandLineEnvironmentAndOutput) {
  setEnv("QOR_TEST_UNTOUCHED", "kept as is");
  for (const char* name : {"NO_PROXY", "no_proxy"}) setEnv(name, "elsewhere");
  setEnv("PYTHONUNBUFFERED", "0");
  setEnv("QOR_DATA_DIR", "/elsewhere");
  setEnv("QOR_GATEWAY_TOKEN", "inherited");
  shipRuntime(shippedVersion);
  configureGateway({{"output", {"one\ntwo\n", {{"hex", "e282"}}, "par", "tial\n", "正在运行\n"}}});

  const auto manager = makeManager();
  manager->start();
  ASSERT_TRUE(eventually([&] { return !record().ready.empty(); })) << record().diagnostics;

  const auto launch = launches().at(0);
  EXPECT_EQ(launch["argv"].get<std::vector<std::string>>(),
            (std::vector<std::string>{(runtime() / "python/bin/python").string(), "-m",
                                      "qor_gateway.main", "--port", std::to_string(gatewayPort),
                                      "--litellm-port", std::to_string(litellmPort), "--data-dir",
                                      data().string()}));
  EXPECT_EQ(launch["cwd"], (runtime() / "sidecar").string());
  const std::map<std::string, std::string> environment = {{"PYTHONUNBUFFERED", "1"},
                                                          {"QOR_DATA_DIR", data().string()},
                                                          {"NO_PROXY", "127.0.0.1,localhost"},
                                                          {"no_proxy", "127.0.0.1,localhost"},
                                                          {"QOR_TEST_UNTOUCHED", "kept as is"}};
  for (const auto& [name, value] : environment) EXPECT_EQ(launch["env"][name], value) << name;
  // This run's own secret, never an inherited one (and another for the next run, below).
  const auto token = launch["env"]["QOR_GATEWAY_TOKEN"].get<std::string>();
  EXPECT_EQ(token, manager->gatewayToken());
  EXPECT_EQ(token.size(), 64u);
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos) << token;
  // One prefix per chunk as read, and the chunk that is not UTF-8 dropped.
  const std::string output =
      "[sidecar] one\ntwo\n[sidecar] par[sidecar] tial\n[sidecar] 正在运行\n";
  EXPECT_TRUE(eventually([&] { return record().diagnostics == output; }, 5s))
      << record().diagnostics;
  EXPECT_NE(makeManager()->gatewayToken(), token);
}

TEST_F(GatewayLaunch, RelaunchScheduleAndCounterUntilARelaunchFails) {
  developerMode();
  const auto python = resources() / "python";
  fs::create_symlink("/usr/bin/python3", python);
  setEnv("QOR_PYTHON", python.c_str());
  configureGateway({{"exit_code", 3}});
  constexpr double speed = 3;
  const auto manager = makeManager(speed);

  manager->start();
  ASSERT_TRUE(eventually([&] { return manager->restartAttempts() == 5; }));
  fs::remove(python);  // the fifth relaunch, 15 s (here 5 s) later, fails
  ASSERT_TRUE(eventually([&] {
    return record().diagnostics.find("[sidecar] relaunch failed: cannot launch ") !=
           std::string::npos;
  }));

  const auto launched = launches();
  ASSERT_EQ(launched.size(), 5u);
  EXPECT_EQ(manager->restartAttempts(), 5) << "the failed relaunch did not end the chain";
  const double delays[] = {2, 4, 8, 15};
  for (size_t i = 0; i < 4; ++i) {
    // From one gateway's exit to the making of the next process (known to a clock tick), a few
    // milliseconds of launching aside.
    const double gap =
        launched[i + 1]["time"].get<double>() - std::stod(linesOf(data() / "exits.log").at(i));
    EXPECT_GE(gap, delays[i] / speed - 0.02) << "relaunch " << i + 1;
    EXPECT_LT(gap, delays[i] / speed + 0.25) << "relaunch " << i + 1;
  }
}

TEST_F(GatewayLaunch, StopDuringTheBackOffLaunchesNothing) {
  developerMode();
  configureGateway({{"exit_code", 3}});
  const auto manager = makeManager(10);
  manager->start();
  ASSERT_TRUE(eventually([&] { return manager->restartAttempts() == 1; }));
  manager->stop();
  ASSERT_TRUE(eventually([&] { return threadsEnded(manager); }));  // the back-off among them
  EXPECT_EQ(launches().size(), 1u);
  EXPECT_EQ(manager->process(), nullptr);
}

TEST_F(GatewayLaunch, DeveloperModeAndTheStartFailures) {
  const std::string failed = "Sidecar startup failed: ";
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"QOR_PYTHON", nullptr, failed + "QOR_DEV set but QOR_PYTHON missing"},
      {"QOR_SIDECAR_DIR", nullptr, failed + "sidecar dir unresolved"},
      {"QOR_PYTHON", "/no/python", failed + "cannot launch /no/python: No such file or directory"},
      // Only exactly "1" means developer mode, and no runtime archive is shipped here.
      {"QOR_DEV", "true",
       failed + "Bundled runtime " + archive().filename().string() + " not found"},
  };
  for (const auto& [name, value, status] : cases) {
    developerMode();
    setEnv(name, value);
    const auto manager = makeManager();
    manager->start();
    ASSERT_TRUE(eventually([&] { return threadsEnded(manager); }));
    EXPECT_EQ(record().statuses, std::vector{status});
    EXPECT_EQ(record().diagnostics, "[sidecar] " + status + "\n");
  }
  EXPECT_TRUE(launches().empty());

  // Developer mode runs the gateway from its sources and unpacks nothing.
  developerMode();
  std::ofstream(archive()) << "not a zip archive";
  configureGateway({});
  makeManager()->start();
  EXPECT_TRUE(eventually([&] { return !record().ready.empty(); }));
  EXPECT_EQ(launches().at(0)["cwd"], FAKE_GATEWAY_DIR);
  EXPECT_FALSE(fs::exists(runtime()));
}

}  // namespace
}  // namespace qor::testing
