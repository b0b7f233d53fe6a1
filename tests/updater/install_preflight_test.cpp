// Before anything is downloaded: a bundle the package manager owns is left
// to it, and a disk without room for the copy is reported with the numbers.
#include <sys/mount.h>

#include <algorithm>

#include "updater_test_support.h"

namespace qor::testing {
namespace {

TEST_F(UpdaterTest, APackageManagedBundleIsLeftToThePackageManagerAndToldOncePerVersion) {
  writeFile(bundle_ / "share" / "qor-velmora" / "PACKAGE_MANAGED", "deb\n");
  const auto told = [](const std::string& version) {
    return "发现新版本 " + version +
           "|当前版本：1.0.0\n此安装由系统的软件包管理器更新，请通过它安装 " + version + "。|好";
  };
  const auto first = makeUpdater();
  acceptUpdate(*first, publishImage("next"));
  ASSERT_TRUE(ui_->pumpUntil([&] { return !ui_->alerts.empty(); }));
  ui_->pumpUntil([&] { return ui_->alerts.size() > 1; }, 500ms);  // nothing else follows
  EXPECT_EQ(ui_->alerts, std::vector{told("1.1.0")});
  EXPECT_TRUE(ui_->progress.empty());
  EXPECT_TRUE(entriesOf(temporary_).empty());

  // Later starts: the automatic check keeps quiet about a version already told, and says so in
  // the diagnostics; the menu's check still tells, and so does the automatic one for a newer one.
  std::mutex mutex;
  std::vector<std::string> diagnostics;
  const auto recording = [&](Updater::Settings& settings) {
    settings.diagnostics = [&](const std::string& line) {
      std::lock_guard lock(mutex);
      diagnostics.push_back(line);
    };
  };
  const auto diagnosed = [&](const std::string& line) {
    std::lock_guard lock(mutex);
    return std::ranges::count(diagnostics, line);
  };
  const auto quiet = "1.1.0 is left to the system's package manager, as told before";
  const auto quietStart = makeUpdater(recording), user = makeUpdater(recording);
  quietStart->scheduleAutomaticCheck();
  ASSERT_TRUE(ui_->pumpUntil([&] { return diagnosed(quiet) == 1; }));
  user->checkForUpdates();
  ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == 2; }));
  EXPECT_EQ(ui_->alerts[1], told("1.1.0"));

  const auto manifest =
      json{{"version", "1.2.0"}, {"platforms", {{"linux-x64", publishImage("next")}}}}.dump();
  writeFile(root_ / "qor" / "latest.json", manifest);
  writeFile(root_ / "qor" / "latest.json.sig", signingKey_.signatureFor(manifest));
  const auto newerStart = makeUpdater(recording);
  newerStart->scheduleAutomaticCheck();
  ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == 3; }));
  EXPECT_EQ(ui_->alerts[2], told("1.2.0"));
  EXPECT_EQ(diagnosed(quiet), 1);
  EXPECT_EQ(readFile(root_ / "support" / "QOR Velmora" / "update-notice"), "1.2.0\n");
}

TEST_F(UpdaterTest, ADiskWithoutRoomForTheCopyIsReportedBeforeDownloading) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a small disk";
  const auto disk = root_ / "small disk";
  std::filesystem::create_directories(disk);
  ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=32m"), 0) << strerror(errno);
  std::filesystem::copy(bundle_, disk / "QOR Velmora", std::filesystem::copy_options::recursive);
  const auto updater = makeUpdater([&](auto& s) { s.bundleRoot = disk / "QOR Velmora"; });
  acceptUpdate(*updater, publishImage("next"));
  const bool answered = ui_->pumpUntil([&] { return ui_->alerts.size() == 2; });
  umount2(disk.c_str(), MNT_DETACH);
  ASSERT_TRUE(answered);
  // 64 MiB of margin beside the bundle, on a disk of 32 MiB.
  EXPECT_PRED2(fits,
               "更新失败|磁盘空间不足，无法安装更新：需要 65 MB，" + disk.string() +
                   " 所在磁盘只有 3[12] MB 可用。|好",
               ui_->alerts[1]);
  EXPECT_TRUE(ui_->progress.empty());
  EXPECT_TRUE(entriesOf(temporary_).empty());
}

}  // namespace
}  // namespace qor::testing
