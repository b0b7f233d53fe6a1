// Before anything is downloaded: a bundle the package manager owns is left
// to it, and a disk without room for the copy is reported with the numbers.
#include <sys/mount.h>

#include <algorithm>

#include "updater_test_support.h"

namespace qor::testing {
namespace {

// Told once per version. The first notice and the quiet next start are seen through the
// window; here the menu's check tells again, and an automatic one tells of a newer version.
TEST_F(UpdaterTest, APackageManagedBundleIsLeftToThePackageManagerAndToldOncePerVersion) {
  writeFile(bundle_ / "share" / "qor-velmora" / "PACKAGE_MANAGED", "deb\n");
  const auto told = [](const std::string& version) {
    return "发现新版本 " + version +
           "|当前版本：1.0.0\n此安装由系统的软件包管理器更新，请通过它安装 " + version + "。|好";
  };
  const auto notice = root_ / "support" / "QOR Velmora" / "update-notice";
  const auto first = makeUpdater(), later = makeUpdater(), user = makeUpdater();
  acceptUpdate(*first, publishImage("next"));
  ASSERT_TRUE(ui_->pumpUntil([&] { return !ui_->alerts.empty(); }));
  EXPECT_EQ(readFile(notice), "1.1.0\n");
  const auto passedOver = [&] {
    return std::ranges::count(diagnostics(),
                              "1.1.0 is left to the system's package manager, as told before");
  };
  later->scheduleAutomaticCheck();
  ASSERT_TRUE(ui_->pumpUntil([&] { return passedOver() == 1; }));
  user->checkForUpdates();
  ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == 2; }));
  EXPECT_EQ(ui_->alerts, std::vector(2, told("1.1.0")));

  publishUpdate({{"linux-x64", publishImage("next")}}, "1.2.0");
  const auto newer = makeUpdater();
  newer->scheduleAutomaticCheck();
  ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == 3; }));
  EXPECT_EQ(ui_->alerts[2], told("1.2.0"));
  EXPECT_EQ(passedOver(), 1);
  EXPECT_EQ(readFile(notice), "1.2.0\n");
  EXPECT_TRUE(ui_->progress.empty());
  EXPECT_TRUE(namesIn(temporary_).empty());
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
  EXPECT_TRUE(namesIn(temporary_).empty());
}

}  // namespace
}  // namespace qor::testing
