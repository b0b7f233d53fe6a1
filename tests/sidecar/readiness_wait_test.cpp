// Waiting for the gateway to answer /healthz with the shipped version.
#include <gtest/gtest.h>

#include <regex>

#include "base/child_process.h"
#include "sidecar/process_table.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

class ReadinessWait : public ::testing::Test {
 protected:
  TestInstallation installation;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();

  void SetUp() override { installation.setShippedVersion("0.8.0"); }

  // Runs the stand-in gateway on the test's gateway port, outside any
  // manager, and waits until it answers.
  std::shared_ptr<ChildProcess> runStandIn(nlohmann::json config) {
    installation.configureGateway(std::move(config));
    auto child = ChildProcess::launch({
        .executable = "/usr/bin/python3",
        .arguments = {"-m", "qor_gateway.main", "--port", std::to_string(installation.gatewayPort),
                      "--litellm-port", std::to_string(installation.litellmPort), "--data-dir",
                      installation.data().string()},
        .workingDirectory = TestInstallation::fakeGatewaySources(),
    });
    EXPECT_TRUE(child);
    EXPECT_TRUE(
        eventually([&] { return pidsListening(installation.gatewayPort).has_value(); }, 10s));
    standIns_.push_back(child.value());
    return child.value();
  }

  void TearDown() override {
    for (const auto& child : standIns_) {
      child->kill();
      child->waitForExit();
    }
  }

  std::string healthURL() const {
    return "http://127.0.0.1:" + std::to_string(installation.gatewayPort) + "/healthz";
  }

 private:
  std::vector<std::shared_ptr<ChildProcess>> standIns_;
};

TEST_F(ReadinessWait, AnsweringGatewayIsReadyWithoutProgressTexts) {
  runStandIn({});
  const auto manager = installation.makeManager(recorder);

  manager->waitForHealth();
  ASSERT_TRUE(eventually([&] { return !recorder->readyURLs().empty(); }, 5s));
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(recorder->readyURLs(),
            std::vector<std::string>{
                "http://127.0.0.1:" + std::to_string(installation.gatewayPort) + "/"});
  EXPECT_TRUE(recorder->statuses().empty());
}

TEST_F(ReadinessWait, OnlyTwoHundredsCountAsHealthy) {
  const auto manager = installation.makeManager(recorder);
  for (const auto& [status, healthy] :
       {std::pair{200, true}, {204, true}, {299, true}, {199, false}, {300, false}, {500, false}}) {
    const auto standIn = runStandIn({{"status", status}});
    EXPECT_EQ(manager->httpOK(healthURL()), healthy) << status;
    standIn->kill();
    standIn->waitForExit();
  }
  EXPECT_FALSE(manager->httpOK(healthURL())) << "nothing listening";
}

TEST_F(ReadinessWait, VersionProbeReadsOnlyATextVersion) {
  const auto manager = installation.makeManager(recorder);
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {R"({"version": "0.8.0", "extra": [1, 2]})", "0.8.0"},
      {R"({"version": 8})", std::nullopt},
      {R"(["version", "0.8.0"])", std::nullopt},
      {"not json at all", std::nullopt},
      {R"({"status": "ok"})", std::nullopt},
  };
  for (const auto& [body, version] : cases) {
    const auto standIn = runStandIn({{"body", body}});
    EXPECT_EQ(manager->healthzVersion(healthURL()), version) << body;
    standIn->kill();
    standIn->waitForExit();
  }
}

TEST_F(ReadinessWait, StaleVersionIsReplacedTwiceThenAccepted) {
  ScopedEnvironment environment = developerMode();
  installation.configureGateway({{"version", "0.7.0"}, {"by_launch", {{{"body", "<html>"}}}}});
  const auto manager = installation.makeManager(recorder, 4);

  manager->start();
  ASSERT_TRUE(eventually([&] { return !recorder->readyURLs().empty(); }, 30s))
      << recorder->diagnostics();

  const auto diagnostics = recorder->diagnostics();
  const std::regex mismatch(
      R"(\[sidecar\] healthz version (\S+) != bundled 0\.8\.0; reaping stale sidecar\n)");
  std::vector<std::string> versions;
  for (std::sregex_iterator it(diagnostics.begin(), diagnostics.end(), mismatch), end; it != end;
       ++it) {
    versions.push_back((*it)[1]);
  }
  EXPECT_EQ(versions, (std::vector<std::string>{"?", "0.7.0"})) << diagnostics;
  // Each mismatch reaped the answering gateway and launched a new one.
  EXPECT_NE(diagnostics.find("[sidecar] reaping stale sidecar pid="), std::string::npos);
  EXPECT_GE(installation.launches().size(), 3u);
  EXPECT_EQ(manager->restartAttempts(), 0);
}

TEST_F(ReadinessWait, SilentGatewayTimesOutWithProgressTexts) {
  const auto manager = installation.makeManager(recorder, 10);
  manager->maxBootSeconds = 3;

  manager->waitForHealth();
  ASSERT_TRUE(eventually(
      [&] {
        return recorder->statuses().size() >= 2 &&
               recorder->statuses().back().starts_with("Sidecar did not");
      },
      10s));

  auto statuses = recorder->statuses();
  EXPECT_EQ(statuses.back(),
            "Sidecar did not become ready within 3s. Check logs in Application Support.");
  statuses.pop_back();
  EXPECT_GE(statuses.size(), 4u);  // about two a second
  const std::regex progress("Starting QOR Velmora… (\\d+)s");
  int previous = 0;
  for (const auto& status : statuses) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(status, match, progress)) << status;
    const int seconds = std::stoi(match[1]);
    EXPECT_GE(seconds, previous);
    EXPECT_LE(seconds, 3);
    previous = seconds;
  }
  EXPECT_TRUE(recorder->readyURLs().empty());
}

TEST_F(ReadinessWait, StopEndsTheWaitWithoutAnyCallback) {
  const auto manager = installation.makeManager(recorder, 10);
  manager->maxBootSeconds = 3;

  manager->waitForHealth();
  manager->stop();
  runStandIn({});  // would be ready now, were anyone still waiting

  std::this_thread::sleep_for(800ms);
  EXPECT_TRUE(recorder->readyURLs().empty());
  for (const auto& status : recorder->statuses()) {
    EXPECT_TRUE(status.starts_with("Starting QOR Velmora… ")) << status;
  }
}

TEST_F(ReadinessWait, FirstStartFromTheShippedRuntimeReachesReady) {
  installation.shipRuntime("0.8.0");
  installation.configureGateway({});
  const auto manager = installation.makeManager(recorder);

  manager->start();
  ASSERT_TRUE(eventually([&] { return !recorder->readyURLs().empty(); }, 20s))
      << ::testing::PrintToString(recorder->statuses());

  EXPECT_EQ(recorder->statuses().front(), "正在准备首次启动运行环境…");
  for (size_t i = 1; i < recorder->statuses().size(); ++i) {
    EXPECT_TRUE(recorder->statuses()[i].starts_with("Starting QOR Velmora… "));
  }
  const auto launch = installation.launches().at(0);
  EXPECT_EQ(launch["cwd"], (installation.runtime() / "sidecar").string());
  EXPECT_EQ(commandLineOf(launch["pid"]).at(0),
            (installation.runtime() / "python/bin/python").string());
}

}  // namespace
}  // namespace qor::testing
