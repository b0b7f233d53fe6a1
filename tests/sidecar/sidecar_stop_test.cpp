// Stopping the gateway: SIGTERM first, SIGKILL only after the grace, and a
// gateway that does not outlive a shell killed without stopping.
#include <algorithm>

#include "sidecar/process_table.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

using SidecarStop = SidecarTest;

TEST_F(SidecarStop, TerminateFirstAndKillOnlyAfterTheGrace) {
  developerMode();
  for (const bool ignoresTerm : {false, true}) {
    configureGateway({{"ignore_term", ignoresTerm}});
    const auto manager = makeManager();
    manager->start();
    ASSERT_TRUE(eventually([&] { return !record().ready.empty(); })) << record().diagnostics;
    const auto gateway = manager->process();

    const auto started = Clock::now();
    manager->stop();
    const auto took = Clock::now() - started;

    // 0 comes from the gateway's own SIGTERM handler, 128 + 9 from SIGKILL.
    EXPECT_EQ(gateway->waitForExitWithTimeout(10s), ignoresTerm ? 128 + SIGKILL : 0);
    EXPECT_EQ(signals().at(ignoresTerm ? 1 : 0), std::to_string(gateway->pid()) + " 15");
    EXPECT_EQ(took >= 1100ms, ignoresTerm) << "SIGKILL only after the 1.2 s grace, if at all";
    // The manager has seen the exit by now: a relaunch would already count.
    EXPECT_EQ(manager->restartAttempts(), 0) << "the exit a stop causes is no crash";
    EXPECT_EQ(manager->process(), nullptr);
  }
  EXPECT_EQ(launches().size(), 2u);
  EXPECT_EQ(signals().size(), 2u);
}

TEST_F(SidecarStop, TheGatewayDiesWithAKilledShell) {
  developerMode();
  configureGateway({});
  const auto host =
      launch({.executable = SIDECAR_HOST,
              .arguments = {support().string(), resources().string(), std::to_string(gatewayPort),
                            std::to_string(litellmPort)}});
  ASSERT_TRUE(eventually([&] { return listenersOn({gatewayPort}).contains(gatewayPort); }));
  const auto gateway = launches().at(0)["pid"].get<pid_t>();

  host->kill();
  EXPECT_EQ(host->waitForExit(), 128 + SIGKILL);
  // The signal comes again each time one of the dying shell's threads inherits the orphan, so it
  // may be logged more than once. (The stand-in also leaves on its own once orphaned, silently.)
  const auto terminated = [&] {
    const auto lines = signals();
    return !lines.empty() && std::ranges::all_of(lines, [&](const std::string& line) {
      return line == std::to_string(gateway) + " 15";
    });
  };
  EXPECT_TRUE(eventually(terminated, 5s)) << json(signals()).dump();
}

}  // namespace
}  // namespace qor::testing
