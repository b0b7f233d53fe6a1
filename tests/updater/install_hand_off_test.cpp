// Downloading, verifying and handing over to the install script, with real
// archives from a real HTTPS server and a real run of the script. What a
// good update leaves is also seen through the window.
#include "updater_test_support.h"

namespace qor::testing {
namespace {

const std::string shown =
    "show 正在下载更新 1.1.0|下载完成并校验通过后，QOR 将自动重启完成安装。|取消";

// An asset that cannot be installed is refused with its reason and leaves no file: an address
// off the trusted host before any download, then a failed transfer, then the image's checks.
TEST_F(UpdaterTest, AssetsThatCannotBeInstalledAreRefusedAndLeaveNoFile) {
  const std::string port = host_.substr(host_.find(':'));
  route({{"/gone.tar.gz", {{"close", true}}},
         {"/moved.tar.gz", {{"redirect", "http://127.0.0.1" + port + "/a.tar.gz"}}}});
  const json image = publishImage("next"), renamed = publishImage("renamed", "QOR Velmora Beta");
  const auto sha = image["sha256"].get<std::string>();
  const auto size = std::to_string(image["size"].get<std::int64_t>());
  std::string upper = sha;
  for (char& c : upper) c = static_cast<char>(std::toupper(c));
  const auto patched = [](json asset, const json& changes) { return asset.update(changes), asset; };
  const auto at = [](const std::string& address) {
    return json{{"url", address}, {"sha256", "0"}};
  };
  const std::string untrusted = "已阻止更新|下载地址不受信任：";
  const std::pair<json, std::string> cases[] = {
      {at("http://127.0.0.1" + port + "/a.tar.gz"), untrusted + "127.0.0.1|好"},
      {at("https://localhost" + port + "/a.tar.gz"), untrusted + "localhost|好"},
      {at("https://127.0.0.1@evil.example/a.tar.gz"), untrusted + "evil.example|好"},
      {at("https:///a.tar.gz"), untrusted + "(nil)|好"},
      {at("https://[::1/a.tar.gz"), "无法更新|清单中的下载地址无效。|好"},
      {at(url("/gone.tar.gz")), "更新失败|Empty reply from server*|好"},
      {at(url("/moved.tar.gz")), "更新失败|Protocol \"http\" *|好"},  // redirects stay on https
      // The digest comes first; the expected one is quoted as the manifest wrote it.
      {patched(image, {{"sha256", "ABCDEF0123456789" + std::string(48, '0')}, {"size", 1}}),
       "已阻止更新|安装包校验和不匹配，可能已损坏或被篡改。\n期望 ABCDEF0123456789…\n实际 " +
           sha.substr(0, 16) + "…|好"},
      // An upper-case digest matches; the size is checked after it.
      {patched(image, {{"sha256", upper}, {"size", std::stoll(size) + 1}}),
       "已阻止更新|安装包大小与清单不一致（" + size + " ≠ " + std::to_string(std::stoll(size) + 1) +
           "）。|好"},
      {patched(renamed, {{"size", nullptr}}), "更新失败|镜像中找不到 QOR Velmora。|好"},
      {publishImage("garbage", "", "not an archive"), "更新失败|无法挂载安装镜像。|好"},
  };
  for (const auto& [asset, expected] : cases) {
    SCOPED_TRACE(expected);
    const auto before = ui_->alerts.size(), shownBefore = ui_->progress.size();
    const auto updater = makeUpdater();
    acceptUpdate(*updater, asset);
    ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == before + 2; }));
    EXPECT_PRED2(fits, expected, ui_->alerts.back());
    EXPECT_EQ(namesIn(temporary_), std::vector<std::string>{});
    if (expected.starts_with(untrusted) || expected.starts_with("无法更新")) {
      EXPECT_EQ(ui_->progress.size(), shownBefore) << "nothing downloaded";
    } else {
      ASSERT_GT(ui_->progress.size(), shownBefore);
      EXPECT_EQ(ui_->progress[shownBefore], shown);
      EXPECT_EQ(ui_->progress.back(), "close");
    }
  }
  EXPECT_EQ(readFile(bundle_ / "share" / "qor-velmora" / "APP_VERSION"), "1.0.0\n");
}

TEST_F(UpdaterTest, CancelDuringASlowDownloadStopsItAndLeavesNoFile) {
  writeFile(root_ / "slow.tar.gz", std::string(1 << 20, 'x'));
  route({{"/slow.tar.gz", {{"chunk", 8192}, {"interval", 0.02}}}});  // 2.6 s in all
  ui_->cancelOnFirstValue = true;
  const auto updater = makeUpdater();
  acceptUpdate(*updater, {{"url", url("/slow.tar.gz")}, {"sha256", "0"}});
  ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->progress.size() >= 3; }));
  EXPECT_EQ(ui_->progress[0], shown);
  EXPECT_EQ(ui_->progress[1], "maximum 1048576");
  EXPECT_TRUE(ui_->progress[2].starts_with("value ")) << ui_->progress[2];
  // The server sees the transfer end early, and the partial file goes.
  EXPECT_TRUE(ui_->pumpUntil([&] {
    return readFile(root_ / "hung-up") == "/slow.tar.gz\n" && namesIn(temporary_).empty();
  }));
  EXPECT_EQ(ui_->alerts.size(), 1u) << ui_->alerts.back();
}

TEST_F(UpdaterTest, HandOffReplacesTheBundleOnlyAfterTheApplicationHasQuit) {
  writeFile(bundle_ / "old-only", "1.0.0");
  const auto image = publishImage("next");
  // Stands in for this application, which the script waits for.
  const auto application = ChildProcess::launch({"/bin/sleep", {"60"}}).value();
  const pid_t pid = application->pid();
  const auto updater = makeUpdater([pid](auto& s) { s.processToAwait = pid, s.clockSpeed = 1; });
  std::optional<std::chrono::steady_clock::time_point> terminated;
  updater->terminateApplication = [&] { terminated = std::chrono::steady_clock::now(); };
  acceptUpdate(*updater, image);

  ASSERT_TRUE(ui_->pumpUntil([&] { return terminated.has_value(); }, 30s));
  ASSERT_EQ(ui_->alerts.size(), 2u);
  EXPECT_EQ(ui_->alerts[1],
            "准备安装 1.1.0|QOR 将退出并自动重启，窗口会在几秒后重新打开。|立即重启");
  EXPECT_GE(*terminated - ui_->answeredAt.at(1), 600ms);
  const auto left = namesIn(temporary_);
  ASSERT_EQ(left.size(), 3u) << "script, staging folder, image";
  EXPECT_PRED2(fits, "qor-install-*.sh qor-staging-* qor-update-*.tar.gz",
               left[0] + " " + left[1] + " " + left[2]);
  EXPECT_PRED2(fits, "*\nPID=" + std::to_string(pid) + "\n*", readFile(temporary_ / left[0]));
  EXPECT_TRUE(ui_->pumpUntil([&] { return scriptWaitsForTheApplication(temporary_ / left[0]); }));
  EXPECT_EQ(readFile(bundle_ / "old-only"), "1.0.0");

  application->kill();
  const auto log = root_ / "support" / "QOR Velmora" / "update.log";
  ASSERT_TRUE(ui_->pumpUntil([&] { return readFile(log).ends_with("] relaunched\n"); }));
  EXPECT_PRED2(fits,
               "*] updating " + (temporary_ / left[1] / "QOR Velmora").string() + " -> " +
                   bundle_.string() + "\ncopy OK\n*] relaunched\n",
               readFile(log));
  EXPECT_FALSE(std::filesystem::exists(bundle_ / "old-only"));
  EXPECT_TRUE(ui_->pumpUntil([&] { return readFile(bundle_ / "started") == "started\n"; }));
  EXPECT_EQ(namesIn(bundle_.parent_path()), std::vector<std::string>{"QOR Velmora"});
}

// A failed install is told once at the next start, whose automatic check then passes over that
// version while the menu's check still offers it (seen through the window); the automatic check
// of the start after offers it again.
TEST_F(UpdaterTest, AFailedInstallIsToldOnceAndItsVersionOfferedAgainAtTheStartAfter) {
  const auto folder = root_ / "support" / "QOR Velmora";
  writeFile(folder / "update-failed", "1.1.0\n");
  publishUpdate({{"linux-x64", publishImage("next")}});
  ui_->answer = 1;  // "稍后" whenever the update is offered
  const auto next = makeUpdater(), after = makeUpdater();
  next->scheduleAutomaticCheck();
  EXPECT_EQ(ui_->alerts, std::vector<std::string>{
                             "更新失败|无法安装更新 1.1.0，已保留当前版本 1.0.0。\n详细原因见 " +
                             (folder / "update.log").string() + "。|好"});
  EXPECT_FALSE(std::filesystem::exists(folder / "update-failed"));
  ASSERT_TRUE(ui_->pumpUntil([&] { return next->manifest().has_value(); }));
  EXPECT_EQ(diagnostics().back(), "not offering 1.1.0 again: its install failed");
  after->scheduleAutomaticCheck();
  ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == 2; }));
  EXPECT_PRED2(fits, "发现新版本 1.1.0|*", ui_->alerts[1]);
}

}  // namespace
}  // namespace qor::testing
