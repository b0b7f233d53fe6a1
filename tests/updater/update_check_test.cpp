// Checking for updates against a real HTTPS server: every outcome of a
// silent and of a user check, and the two silent flags.
#include "updater_test_support.h"

namespace qor::testing {
namespace {

// The server's answer: a manifest offering `version`, changed by `extra`.
json offering(const std::string& version, const json& extra = json::object()) {
  json manifest = {{"version", version},
                   {"platforms", {{"linux-x64", {{"url", "u"}, {"sha256", "0"}}}}}};
  manifest.update(extra);
  return {{"body", manifest.dump()}};
}

TEST_F(UpdaterTest, CheckOutcomesForTheUserAndOnlyOffersWhenSilent) {
  const std::string failed = "无法检查更新|", unavailable = failed + "更新服务暂时不可用（HTTP ";
  const std::string noAsset = "无法更新|没有适配当前芯片架构（";
  const std::tuple<json, std::function<void(Updater::Settings&)>, std::string> outcomes[] = {
      // Transport failures in the user's words, then the detail.
      {{},
       [](auto& s) { s.host = "127.0.0.1:1"; },
       failed + "更新服务器拒绝了连接。\nFailed to connect to 127.0.0.1*|好"},
      {{},
       [](auto& s) { s.host = "qor-updates.invalid"; },
       failed + "找不到更新服务器（无法解析其地址）。\n*qor-updates.invalid*|好"},
      {{{"delay", 2}},
       [](auto& s) { s.idleTimeout = 200ms; },
       failed + "连接更新服务器超时。\nThe server sent nothing for 0.2 s.|好"},
      {{},
       [](auto& s) { s.extraCAFile.clear(); },
       failed + "无法与更新服务器建立安全连接。\nSSL certificate problem: *|好"},
      {{{"close", true}}, {}, failed + "更新服务无响应。|好"},
      {{{"status", 304}}, {}, unavailable + "304）。|好"},
      {{}, {}, unavailable + "404）。|好"},
      {{{"status", 500}, {"body", "oops"}}, {}, unavailable + "500）。|好"},
      {{{"body", ""}}, {}, unavailable + "200）。|好"},
      {offering("1", {{"platforms", {{"linux-x64", {{"url", "u"}, {"sha256", 7}}}}}}),
       {},
       failed + "更新清单解析失败：\"platforms.linux-x64.sha256\" must be a string*|好"},
      {offering("1.1.0", {{"platforms", json::object()}}),
       {},
       noAsset + "linux-x64）的安装包。|好"},
      {offering("1.1.0"), [](auto& s) { s.machineName = "riscv64"; },
       noAsset + "未知）的安装包。|好"},
      // min_version without a newer version forces nothing.
      {offering("1.0", {{"min_version", "3"}}), {}, "已是最新版本|当前版本 1.0.0，无需更新。|好"},
      {offering("1.1.0", {{"notes", "修复\n改进"}, {"min_version", "1.0.0"}}),
       {},
       "发现新版本 1.1.0|当前版本：1.0.0\n修复\n改进|立即更新,稍后"},
      {offering("2.0.0", {{"notes", ""}, {"min_version", "1.0.1"}}),
       {},
       "必须更新到 2.0.0|当前版本：1.0.0\n建议更新以获得最新修复与改进。|立即更新|critical"},
  };
  for (const auto& [latest, change, expected] : outcomes) {
    SCOPED_TRACE(expected);
    route({{"/qor/latest.json", latest}});
    const bool offer = expected.find("|立即更新") != std::string::npos;
    const auto before = ui_->alerts.size(), lines = diagnostics().size();
    const auto silent = makeUpdater(change);
    const auto scheduled = std::chrono::steady_clock::now();
    silent->scheduleAutomaticCheck();
    // A silent check ends in a diagnostic line, a manifest read or an offer.
    ASSERT_TRUE(ui_->pumpUntil([&] {
      return diagnostics().size() > lines || silent->manifest() || ui_->alerts.size() > before;
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - scheduled, 300ms) << "before the 3 s (here 0.3)";
    ASSERT_EQ(ui_->alerts.size(), before + offer);

    const auto user = makeUpdater(change);
    user->checkForUpdates();
    ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == before + offer + 1; }));
    for (auto i = before; i < ui_->alerts.size(); ++i) EXPECT_PRED2(fits, expected, ui_->alerts[i]);
  }
  EXPECT_TRUE(ui_->progress.empty()) << "unanswered offers start nothing";
}

// A build without an update server asks nobody, and says nothing about it: an updater with
// one, started after it, has its say first.
TEST_F(UpdaterTest, WithoutAnUpdateServerNoCheckRuns) {
  const auto unconfigured = makeUpdater([](auto& s) { s.host.clear(); });
  const auto configured = makeUpdater();
  EXPECT_FALSE(unconfigured->updatesConfigured());
  EXPECT_TRUE(configured->updatesConfigured());
  for (const auto& updater : {unconfigured, configured}) {
    updater->scheduleAutomaticCheck();
    updater->checkForUpdates();
  }
  const std::string failed = "无法检查更新|更新服务暂时不可用（HTTP 404）。";  // nothing published
  ASSERT_TRUE(ui_->pumpUntil([&] { return diagnostics().size() == 2; }));
  EXPECT_EQ(ui_->alerts, std::vector{failed + "|好"});
  EXPECT_EQ(diagnostics(), std::vector(2, "无法检查更新: " + failed.substr(failed.find('|') + 1)));
}

// A failed request is judged by the flag of its own check, a manifest by the
// flag of the check that started last: here a silent one after a user check.
TEST_F(UpdaterTest, CheckKeepsBothSilentFlags) {
  const auto updater = makeUpdater();
  // Each round's checks end before the UI thread runs what they posted.
  route({{"/qor/latest.json", offering("1.0.0")}});
  updater->checkForUpdates();
  updater->scheduleAutomaticCheck();  // starts 0.3 s later
  ASSERT_TRUE(eventually([&] { return ui_->pendingTasks() == 2; })) << "both manifests read";
  route({{"/qor/latest.json", {{"status", 500}}}});
  updater->checkForUpdates();
  updater->scheduleAutomaticCheck();
  ASSERT_TRUE(eventually([&] { return ui_->pendingTasks() == 3 && diagnostics().size() == 1; }));
  ui_->runPosted();
  EXPECT_EQ(ui_->alerts,
            std::vector<std::string>{"无法检查更新|更新服务暂时不可用（HTTP 500）。|好"});
}

}  // namespace
}  // namespace qor::testing
