// Unpacking the shipped runtime on first start and upgrade, and the data
// backup that precedes an upgrade.
#include <algorithm>
#include <fstream>
#include <regex>

#include "base/files.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

using RuntimeProvisioning = SidecarTest;
using DataBackup = SidecarTest;

TEST_F(RuntimeProvisioning, FirstUpToDateAndUpgradeStarts) {
  const auto manager = makeManager();
  const auto provision = [&] {
    EXPECT_TRUE(manager->prepareRuntimeIfNeeded());
    return record().statuses;
  };
  shipRuntime("0.8.0");
  fs::create_directories(data() / "notes");
  std::ofstream(data() / "notes" / "a.json") << "keep me";

  EXPECT_EQ(provision(), std::vector<std::string>{"正在准备首次启动运行环境…"});
  EXPECT_TRUE(fs::exists(runtime() / "sidecar/qor_gateway/main.py"));
  EXPECT_EQ(readTextFile(runtime() / "QOR_RUNTIME_VERSION"), "0.8.0");
  EXPECT_FALSE(fs::exists(backups()));

  std::ofstream(runtime() / "sidecar" / "left-alone");
  EXPECT_EQ(provision().size(), 1u) << "an up-to-date runtime was prepared again";
  EXPECT_TRUE(fs::exists(runtime() / "sidecar" / "left-alone"));

  shipRuntime("0.9.0");
  EXPECT_EQ(provision().back(), "正在升级到新版本 0.9.0…");
  EXPECT_FALSE(fs::exists(runtime() / "sidecar" / "left-alone"));
  EXPECT_EQ(readTextFile(runtime() / "QOR_RUNTIME_VERSION"), "0.9.0");
  const auto backup = fs::directory_iterator(backups())->path();
  EXPECT_TRUE(
      std::regex_match(backup.filename().string(), std::regex(R"(data-0\.8\.0-\d{8}-\d{6}\.zip)")));
  const auto unpacked = backups() / "unpacked";
  const std::vector<std::string> unzip = {"-q", backup.string(), "-d", unpacked.string()};
  ASSERT_EQ(*ChildProcess::run({.executable = "/usr/bin/unzip", .arguments = unzip}), 0);
  EXPECT_EQ(readTextFile(unpacked / "data/notes/a.json"), "keep me");
  EXPECT_EQ(std::distance(fs::directory_iterator(unpacked), {}), 1) << "not only data/ on top";
}

TEST_F(RuntimeProvisioning, CorruptArchiveFailsTheStart) {
  std::ofstream(archive()) << "PK\x03\x04 not a zip archive";
  const auto manager = makeManager();
  manager->start();
  ASSERT_TRUE(eventually([&] { return threadsEnded(manager); }));
  const auto statuses = record().statuses;
  EXPECT_EQ(statuses.at(0), "正在准备首次启动运行环境…");
  const std::regex failed(R"(Sidecar startup failed: Runtime extraction failed \(unzip \d+\))");
  EXPECT_TRUE(std::regex_match(statuses.at(1), failed)) << statuses.at(1);
  EXPECT_EQ(statuses.size(), 2u);
  EXPECT_TRUE(launches().empty());
}

TEST_F(DataBackup, KeepsTheThreeNewestZipArchivesAndNothingElse) {
  fs::create_directories(data());
  fs::create_directories(backups());
  const std::string oldestFirst[] = {"OLD.ZIP",    ".hidden.zip", "notes.txt", "data-1.zip",
                                     "data-2.zip", "data-3.zip",  "data-4.zip"};
  for (int age = 7; const auto& name : oldestFirst) {
    std::ofstream(backups() / name) << name;
    fs::last_write_time(backups() / name, fs::file_time_type::clock::now() - --age * 1min);
  }
  EXPECT_TRUE(makeManager()->backupDataBeforeUpgrade("release/1.2"));

  for (const auto& name : oldestFirst) {
    EXPECT_EQ(fs::exists(backups() / name), name != "data-1.zip" && name != "data-2.zip") << name;
  }
  const auto isNew = [](const fs::directory_entry& file) {
    return file.path().filename().string().starts_with("data-release_1.2-");
  };
  EXPECT_EQ(std::ranges::count_if(fs::directory_iterator(backups()), isNew), 1);
}

}  // namespace
}  // namespace qor::testing
