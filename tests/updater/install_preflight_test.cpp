// Before anything is downloaded: a bundle the package manager owns is left
// to it, and a disk without room for the copy is reported with the numbers.
#include <sys/mount.h>

#include "updater_test_support.h"

namespace qor::testing {
namespace {

TEST_F(UpdaterTest, APackageManagedBundleIsLeftToThePackageManager) {
  writeFile(bundle_ / "share" / "qor-velmora" / "PACKAGE_MANAGED", "deb\n");
  const auto updater = makeUpdater();
  acceptUpdate(*updater, publishImage("next"));
  ASSERT_TRUE(ui_->pumpUntil([&] { return !ui_->alerts.empty(); }));
  ui_->pumpUntil([&] { return ui_->alerts.size() > 1; }, 500ms);  // nothing else follows
  EXPECT_EQ(ui_->alerts,
            std::vector<std::string>{"发现新版本 1.1.0|当前版本：1.0.0\n"
                                     "此安装由系统的软件包管理器更新，请通过它安装 1.1.0。|好"});
  EXPECT_TRUE(ui_->progress.empty());
  EXPECT_TRUE(entriesOf(temporary_).empty());
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
