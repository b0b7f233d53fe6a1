// Waiting for the gateway to answer /healthz with the shipped version.
#include <regex>

#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

using ReadinessWait = SidecarTest;

TEST_F(ReadinessWait, ReadyAtOnceWithoutStatusTextAndOnlyTwoHundredsAreHealthy) {
  configureGateway({});
  auto standIn = runStandIn(data(), gatewayPort);
  const auto manager = makeManager();
  const auto address = "http://127.0.0.1:" + std::to_string(gatewayPort) + "/";
  manager->waitForHealth();
  ASSERT_TRUE(eventually([&] { return threadsEnded(manager); }));
  EXPECT_EQ(record().ready, std::vector{address});
  EXPECT_TRUE(record().statuses.empty());

  for (const auto& [status, healthy] :
       {std::pair{204, true}, {299, true}, {199, false}, {300, false}}) {
    standIn->kill();
    standIn->waitForExit();
    configureGateway({{"status", status}});
    standIn = runStandIn(data(), gatewayPort);
    EXPECT_EQ(manager->httpOK(address + "healthz"), healthy) << status;
  }
}

TEST_F(ReadinessWait, StaleVersionIsReplacedTwiceThenAccepted) {
  developerMode();
  // The first gateway answers a page, every later one an old version.
  configureGateway({{"version", "0.7.0"}, {"by_launch", {{{"body", "<html>"}}}}});
  makeManager(4)->start();
  ASSERT_TRUE(eventually([&] { return !record().ready.empty(); })) << record().diagnostics;

  const auto diagnostics = record().diagnostics;
  const std::regex mismatch(
      R"(\[sidecar\] healthz version (\S+) != bundled 0\.8\.0; reaping stale sidecar\n)");
  std::vector<std::string> versions;
  for (std::sregex_iterator it(diagnostics.begin(), diagnostics.end(), mismatch), end; it != end;
       ++it) {
    versions.push_back((*it)[1]);
  }
  EXPECT_EQ(versions, (std::vector<std::string>{"?", "0.7.0"})) << diagnostics;
}

// A stopped wait ends without a page, even for a gateway that answers after the stop. (The
// progress texts and the time-out are seen through the window.)
TEST_F(ReadinessWait, AStoppedWaitEndsWithoutAPage) {
  const auto manager = makeManager(10);
  manager->waitForHealth();
  manager->stop();
  configureGateway({});
  runStandIn(data(), gatewayPort);
  ASSERT_TRUE(eventually([&] { return threadsEnded(manager); }));
  EXPECT_TRUE(record().ready.empty());
  for (const auto& status : record().statuses) {
    EXPECT_TRUE(std::regex_match(status, std::regex("Starting QOR Velmora… [0-9]s"))) << status;
  }
}

}  // namespace
}  // namespace qor::testing
