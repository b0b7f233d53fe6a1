// Freeing the gateway's ports from leftover gateways of ours, recognised by
// their command line.
#include <future>

#include "sidecar/stale_sidecar_reaper.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

using StaleSidecarReaping = SidecarTest;

TEST_F(StaleSidecarReaping, OursAreTerminatedOrKilledOthersLeftAlone) {
  const int ports[] = {freePort(), freePort(), freePort()};
  const fs::path folders[] = {data() / "a", data() / "b", support() / "not-ours"};
  std::shared_ptr<ChildProcess> gateways[3];
  for (int i = 0; i < 3; ++i) {
    configureGateway({{"ignore_term", i == 1}}, folders[i]);
    gateways[i] = runStandIn(folders[i], ports[i]);
  }

  std::string diagnostics;
  auto sweep = std::async(std::launch::async, [&] {
    const auto sink = [&](std::string_view bytes) { diagnostics.append(bytes); };
    reapStaleSidecars({ports[0], ports[1], ports[2]}, ScaledClock(), sink);
  });
  EXPECT_EQ(gateways[0]->waitForExitWithTimeout(1s), 0) << "its SIGTERM handler exits with 0";
  EXPECT_EQ(gateways[1]->waitForExitWithTimeout(1500ms), std::nullopt) << "killed before 2 s";
  ASSERT_EQ(sweep.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(gateways[1]->waitForExitWithTimeout(1s), 128 + SIGKILL);
  EXPECT_TRUE(gateways[2]->isRunning());

  const auto reaping = [&](int i) {
    return "[sidecar] reaping stale sidecar pid=" + std::to_string(gateways[i]->pid()) +
           " on port " + std::to_string(ports[i]) +
           ": /usr/bin/python3 -m qor_gateway.main --port " + std::to_string(ports[i]) +
           " --litellm-port " + std::to_string(litellmPort) + " --data-dir " + folders[i].string() +
           "\n";
  };
  EXPECT_EQ(diagnostics, reaping(0) + reaping(1));
  EXPECT_EQ(linesOf(folders[1] / "signals.log"),
            std::vector{std::to_string(gateways[1]->pid()) + " 15"})
      << "no SIGTERM before SIGKILL";
  EXPECT_FALSE(fs::exists(folders[2] / "signals.log"));
}

}  // namespace
}  // namespace qor::testing
