// First start, up-to-date start and upgrade start of the runtime, with the
// data backup that precedes an upgrade.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "base/child_process.h"
#include "base/files.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

std::vector<std::string> zipEntries(const std::filesystem::path& archive) {
  std::vector<std::string> entries;
  const auto listed = ChildProcess::run({
      .executable = "/bin/sh",
      .arguments = {"-c", "/usr/bin/unzip -Z1 \"$0\" > \"$0.list\"", archive.string()},
  });
  EXPECT_TRUE(listed && *listed == 0);
  std::ifstream in(archive.string() + ".list");
  for (std::string line; std::getline(in, line);) entries.push_back(line);
  std::filesystem::remove(archive.string() + ".list");
  return entries;
}

std::vector<std::string> namesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class RuntimeProvisioning : public ::testing::Test {
 protected:
  TestInstallation installation;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<SidecarManager> manager = installation.makeManager(recorder);

  void installRuntime(const std::string& version, bool withMarker) {
    std::filesystem::create_directories(installation.runtime() / "sidecar");
    std::ofstream(installation.runtime() / "QOR_RUNTIME_VERSION") << version;
    std::ofstream(installation.runtime() / "sidecar" / "old-file");
    if (withMarker) std::ofstream(installation.runtime() / ".runtime-ok");
  }

  void writeUserData() {
    std::filesystem::create_directories(installation.data() / "notes");
    std::ofstream(installation.data() / "notes" / "a.json") << R"({"text":"keep me"})";
  }

  // Runs provisioning the way the start sequence does and lets the posted
  // status texts arrive.
  Result<> provision() {
    auto result = manager->prepareRuntimeIfNeeded();
    installation.drainQueue();
    return result;
  }
};

TEST_F(RuntimeProvisioning, FirstStartUnpacksWithoutBackup) {
  installation.shipRuntime("0.8.0");
  writeUserData();

  ASSERT_TRUE(provision());

  EXPECT_EQ(recorder->statuses(), std::vector<std::string>{"正在准备首次启动运行环境…"});
  EXPECT_TRUE(std::filesystem::exists(installation.runtime() / "python/bin/python"));
  EXPECT_TRUE(std::filesystem::exists(installation.runtime() / "sidecar/qor_gateway/main.py"));
  EXPECT_TRUE(std::filesystem::exists(installation.runtime() / ".runtime-ok"));
  EXPECT_EQ(readTextFile(installation.runtime() / "QOR_RUNTIME_VERSION"), "0.8.0");
  EXPECT_FALSE(std::filesystem::exists(installation.backups()));
}

TEST_F(RuntimeProvisioning, UpToDateRuntimeIsLeftAlone) {
  installation.shipRuntime("0.8.0");
  installRuntime("0.8.0\n", /*withMarker=*/true);

  ASSERT_TRUE(provision());

  EXPECT_TRUE(recorder->statuses().empty());
  EXPECT_TRUE(std::filesystem::exists(installation.runtime() / "sidecar/old-file"));
  EXPECT_FALSE(std::filesystem::exists(installation.runtime() / "python"));
}

TEST_F(RuntimeProvisioning, UpgradeBacksUpDataThenReplacesTheRuntime) {
  installation.shipRuntime("0.8.0");
  installRuntime("0.7.12\n", /*withMarker=*/true);
  writeUserData();

  ASSERT_TRUE(provision());

  EXPECT_EQ(recorder->statuses(), std::vector<std::string>{"正在升级到新版本 0.8.0…"});
  EXPECT_FALSE(std::filesystem::exists(installation.runtime() / "sidecar/old-file"));
  EXPECT_TRUE(std::filesystem::exists(installation.runtime() / "python/bin/python"));
  EXPECT_EQ(readTextFile(installation.runtime() / "QOR_RUNTIME_VERSION"), "0.8.0");

  const auto backups = namesIn(installation.backups());
  ASSERT_EQ(backups.size(), 1u);
  EXPECT_TRUE(std::regex_match(backups[0], std::regex(R"(data-0\.7\.12-\d{8}-\d{6}\.zip)")))
      << backups[0];
  const auto entries = zipEntries(installation.backups() / backups[0]);
  EXPECT_NE(std::find(entries.begin(), entries.end(), "data/notes/a.json"), entries.end());
  for (const auto& entry : entries) EXPECT_TRUE(entry.starts_with("data/")) << entry;
  // The user's data itself is untouched.
  EXPECT_EQ(readTextFile(installation.data() / "notes/a.json"), R"({"text":"keep me"})");
}

TEST_F(RuntimeProvisioning, MissingMarkerOrBlankVersionFile) {
  installation.shipRuntime("0.8.0");
  writeUserData();

  // Same version but no marker: an interrupted unpack is redone as an upgrade.
  installRuntime("0.8.0", /*withMarker=*/false);
  ASSERT_TRUE(provision());
  EXPECT_EQ(recorder->statuses(), std::vector<std::string>{"正在升级到新版本 0.8.0…"});
  EXPECT_EQ(namesIn(installation.backups()).size(), 1u);

  // A version file holding only white space counts as no runtime at all.
  std::filesystem::remove_all(installation.runtime());
  installRuntime(" \n", /*withMarker=*/true);
  ASSERT_TRUE(provision());
  EXPECT_EQ(recorder->statuses().back(), "正在准备首次启动运行环境…");
  EXPECT_EQ(namesIn(installation.backups()).size(), 1u);
}

TEST_F(RuntimeProvisioning, ArchiveVersionFileWinsAndShippedVersionFillsTheGap) {
  installation.shipRuntime("0.8.0");
  // The archive brings "0.8.0"; the bundle now claims something else.
  installation.setShippedVersion("0.8.0-hotfix");
  ASSERT_TRUE(provision());
  EXPECT_EQ(readTextFile(installation.runtime() / "QOR_RUNTIME_VERSION"), "0.8.0");

  // An archive without its own version file gets the shipped one, no newline.
  std::filesystem::remove_all(installation.runtime());
  const auto archive =
      installation.resources() / ("QOR-runtime-" + SidecarManager::architectureName() + ".zip");
  const auto deleted =
      ChildProcess::run({.executable = "/usr/bin/zip",
                         .arguments = {"-q", "-d", archive.string(), "QOR_RUNTIME_VERSION"},
                         .output = OutputMode::discard});
  ASSERT_TRUE(deleted && *deleted == 0);
  ASSERT_TRUE(provision());
  EXPECT_EQ(readTextFile(installation.runtime() / "QOR_RUNTIME_VERSION"), "0.8.0-hotfix");
}

TEST_F(RuntimeProvisioning, MissingOrCorruptArchiveFailsTheStart) {
  // No archive and no version resource: the fallback version decides, and
  // nothing on disk changes.
  installRuntime("0.7.12", /*withMarker=*/true);
  const auto missing = provision();
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().domain, "QOR");
  EXPECT_EQ(missing.error().code, 1);
  EXPECT_EQ(missing.error().description,
            "Bundled runtime QOR-runtime-" + SidecarManager::architectureName() + ".zip not found");
  EXPECT_EQ(manager->bundledVersion(), "0.7.13");
  EXPECT_TRUE(std::filesystem::exists(installation.runtime() / "sidecar/old-file"));

  installation.shipCorruptArchive();
  const auto corrupt = provision();
  ASSERT_FALSE(corrupt);
  EXPECT_EQ(corrupt.error().code, 2);
  EXPECT_TRUE(std::regex_match(corrupt.error().description,
                               std::regex(R"(Runtime extraction failed \(unzip \d+\))")))
      << corrupt.error().description;
  EXPECT_FALSE(std::filesystem::exists(installation.runtime() / ".runtime-ok"));
}

TEST_F(RuntimeProvisioning, StartReportsProvisioningFailureAndLaunchesNothing) {
  installation.shipCorruptArchive();
  manager->start();
  ASSERT_TRUE(eventually([&] { return recorder->statuses().size() == 2; }, 10s));
  EXPECT_EQ(recorder->statuses()[0], "正在准备首次启动运行环境…");
  EXPECT_TRUE(
      recorder->statuses()[1].starts_with("Sidecar startup failed: Runtime extraction "
                                          "failed (unzip "))
      << recorder->statuses()[1];
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(recorder->statuses().size(), 2u);
  EXPECT_TRUE(installation.launches().empty());
  EXPECT_EQ(manager->process(), nullptr);
}

class DataBackup : public RuntimeProvisioning {
 protected:
  void addArchive(const std::string& name, int ageInMinutes) {
    std::filesystem::create_directories(installation.backups());
    const auto path = installation.backups() / name;
    std::ofstream(path) << name;
    std::filesystem::last_write_time(
        path, std::filesystem::file_time_type::clock::now() - std::chrono::minutes(ageInMinutes));
  }
};

TEST_F(DataBackup, KeepsTheThreeNewestZipArchivesOnly) {
  writeUserData();
  addArchive("data-0.1-20250101-000000.zip", 40);
  addArchive("data-0.2-20250101-000000.zip", 30);
  addArchive("data-0.3-20250101-000000.zip", 20);
  addArchive("data-0.4-20250101-000000.zip", 10);
  addArchive("notes.txt", 500);
  addArchive(".hidden.zip", 600);
  addArchive("OLD.ZIP", 700);

  manager->backupDataBeforeUpgrade("release/1.2");

  const auto names = namesIn(installation.backups());
  ASSERT_EQ(names.size(), 6u) << ::testing::PrintToString(names);
  EXPECT_EQ(names[0], ".hidden.zip");
  EXPECT_EQ(names[1], "OLD.ZIP");
  EXPECT_EQ(names[2], "data-0.3-20250101-000000.zip");
  EXPECT_EQ(names[3], "data-0.4-20250101-000000.zip");
  EXPECT_TRUE(names[4].starts_with("data-release_1.2-")) << names[4];
  EXPECT_EQ(names[5], "notes.txt");
}

TEST_F(DataBackup, NothingToBackUpCreatesNoFolder) {
  manager->backupDataBeforeUpgrade("0.7.12");
  EXPECT_FALSE(std::filesystem::exists(installation.backups()));
}

}  // namespace
}  // namespace qor::testing
