// A bundle the system's package manager owns takes the release's Debian
// package: downloaded and verified like an image, then handed to the package
// installer through the privileged runner, here a stand-in that records what
// it was asked and answers as the test says.
#include "updater_test_support.h"

namespace qor::testing {
namespace {

class PackageInstallTest : public UpdaterTest {
 protected:
  void SetUp() override {
    UpdaterTest::SetUp();
    writeFile(bundle_ / "share" / "qor-velmora" / "PACKAGE_MANAGED", "deb\n");
  }

  // A stand-in runner that records its arguments and the digest of the file
  // it was given, then exits with `status`.
  std::filesystem::path makeRunner(int status) const {
    const auto runner = root_ / "runner";
    writeFile(runner, "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + asked_.string() +
                          "'\nsha256sum \"$4\" | cut -c1-64 >> '" + asked_.string() + "'\nexit " +
                          std::to_string(status) + "\n");
    std::filesystem::permissions(runner, std::filesystem::perms(0755));
    return runner;
  }

  // Offers 1.1.0 with an image and a package for this machine, and accepts.
  void acceptPackageUpdate(Updater& updater, const json& package) {
    publishUpdate(
        {{"linux-x64", publishImage("next")},
         {"linux-x64-deb", package},
         {"linux-arm64-deb", {{"url", url("/other.deb")}, {"sha256", std::string(64, '0')}}}});
    ui_->answer = 0;
    updater.checkForUpdates();
  }

  const std::filesystem::path asked_ = root_ / "runner-asked";
  const std::string packageBytes = "a Debian package of 1.1.0";
  const std::string packageDigest =  // sha256 of packageBytes
      ChildProcess::runCapturingOutput(
          {"/bin/sh", {"-c", "printf %s \"$1\" | sha256sum | cut -c1-64", "sh", packageBytes}})
          .value()
          .output.substr(0, 64);
  json package() {
    writeFile(root_ / "qor-velmora_1.1.0_amd64.deb", packageBytes);
    return {{"url", url("/qor-velmora_1.1.0_amd64.deb")},
            {"sha256", packageDigest},
            {"size", packageBytes.size()}};
  }
  static constexpr const char* offer =
      "发现新版本 1.1.0|当前版本：1.0.0\n建议更新以获得最新修复与改进。|立即更新,稍后";
};

// The runner's call, the package's removal and the new version's start are seen through the
// window; here, that the new version starts only once the application has quit.
TEST_F(PackageInstallTest, TheNewVersionStartsOnceTheApplicationHasQuit) {
  const auto application = ChildProcess::launch({"/bin/sleep", {"60"}}).value();
  const pid_t pid = application->pid();
  const auto runner = makeRunner(0);
  const auto updater = makeUpdater(
      [&](auto& s) { s.processToAwait = pid, s.clockSpeed = 1, s.privilegedRunner = runner; });
  bool terminated = false;
  updater->terminateApplication = [&] { terminated = true; };
  acceptPackageUpdate(*updater, package());

  ASSERT_TRUE(ui_->pumpUntil([&] { return terminated; }));
  EXPECT_EQ(ui_->alerts.back(),
            "已安装 1.1.0|QOR 将退出并自动重启，窗口会在几秒后重新打开。|立即重启");
  EXPECT_PRED2(fits, "/usr/bin/apt-get\ninstall\n-y\n*.deb\n" + packageDigest + "\n",
               readFile(asked_));
  const auto left = namesIn(temporary_);
  ASSERT_EQ(left.size(), 1u) << "only the relaunch script";
  EXPECT_TRUE(ui_->pumpUntil([&] { return scriptWaitsForTheApplication(temporary_ / left[0]); }));
  EXPECT_EQ(readFile(bundle_ / "started"), "");
  application->kill();
  EXPECT_TRUE(ui_->pumpUntil([&] { return readFile(bundle_ / "started") == "started\n"; }));
}

TEST_F(PackageInstallTest, ARefusedOrFailedInstallIsToldAndTheApplicationKeepsRunning) {
  const std::pair<std::function<json(json)>, std::string> cases[] = {
      // The runner refuses (the prompt was dismissed, or the installer failed).
      {[](json asset) { return asset; },
       "更新失败|未能通过系统的软件包管理器安装 1.1.0（授权被拒绝或安装出错），当前版本继续运行。"
       "|好"},
      // A package that is not the one announced never reaches the runner.
      {[](json asset) { return asset["sha256"] = std::string(64, 'a'), asset; },
       "已阻止更新|安装包校验和不匹配，可能已损坏或被篡改。\n期望 aaaaaaaaaaaaaaaa…\n实际 " +
           packageDigest.substr(0, 16) + "…|好"},
      {[](json asset) { return asset["size"] = 3, asset; },
       "已阻止更新|安装包大小与清单不一致（25 ≠ 3）。|好"},
  };
  for (const auto& [change, failure] : cases) {
    std::filesystem::remove(asked_);
    ui_->alerts.clear();
    const auto runner = makeRunner(126);
    // The clock sped up so far that a quit, were one scheduled, would be due at once.
    const auto updater =
        makeUpdater([&](auto& s) { s.privilegedRunner = runner, s.clockSpeed = 1000; });
    bool terminated = false;
    updater->terminateApplication = [&] { terminated = true; };
    acceptPackageUpdate(*updater, change(package()));

    ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == 2; })) << failure;
    EXPECT_EQ(ui_->alerts[1], failure);
    EXPECT_EQ(std::filesystem::exists(asked_), failure.starts_with("更新失败")) << failure;
    EXPECT_TRUE(namesIn(temporary_).empty()) << failure;
    // The next check's offer, put off, comes after it.
    ui_->answer = 1;
    updater->checkForUpdates();
    ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == 3; })) << failure;
    EXPECT_EQ(ui_->alerts[2], offer);
    EXPECT_FALSE(terminated) << failure;
  }
}

}  // namespace
}  // namespace qor::testing
