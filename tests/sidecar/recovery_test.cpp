// Healing instead of giving up: a damaged runtime, a backup that cannot be
// made and the leftovers of an interrupted one. (A gateway that answers late,
// a crash under the page and the exits of replaced gateways are seen through
// the window, with real timings.)
#include <csignal>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>

#include "base/files.h"
#include "sidecar_test_support.h"

namespace qor::testing {
namespace {

using Recovery = SidecarTest;

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::ranges::sort(names);
  return names;
}

// The child of `parent` running `command`, if any.
std::optional<pid_t> childRunning(pid_t parent, const std::string& command) {
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::string stat;
    if (!std::getline(std::ifstream(entry.path() / "stat"), stat)) continue;
    const auto open = stat.find('('), close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos) continue;
    std::istringstream rest(stat.substr(close + 1));
    std::string state;
    pid_t ppid = 0;
    rest >> state >> ppid;
    if (ppid == parent && stat.substr(open + 1, close - open - 1) == command) {
      return std::stoi(entry.path().filename().string());
    }
  }
  return std::nullopt;
}

TEST_F(Recovery, RuntimeMissingItsInterpreterOrGatewayIsUnpackedAgainWithABackup) {
  shipRuntime(shippedVersion);
  fs::create_directories(data());
  std::ofstream(data() / "notes.json") << "keep me";
  const auto manager = makeManager();
  ASSERT_TRUE(manager->prepareRuntimeIfNeeded());
  for (const char* part : {"python/bin/python", "sidecar"}) {
    SCOPED_TRACE(part);
    const auto backupsBefore = fs::exists(backups()) ? namesIn(backups()).size() : 0;
    fs::remove_all(runtime() / part);
    // A new second on the clock the backup names are made from: a backup name of its own.
    const auto now = std::time(nullptr);
    ASSERT_TRUE(eventually([&] { return std::time(nullptr) != now; }));
    ASSERT_TRUE(manager->prepareRuntimeIfNeeded());
    EXPECT_TRUE(fs::exists(runtime() / "sidecar/qor_gateway/main.py"));
    EXPECT_TRUE(fs::exists(runtime() / "python/bin/python"));
    EXPECT_EQ(record().statuses.back(), "正在升级到新版本 " + shippedVersion + "…");
    EXPECT_EQ(namesIn(backups()).size(), backupsBefore + 1);
  }
}

TEST_F(Recovery, NoUpgradeWithoutTheBackupAndARetriedStartStillBacksUp) {
  shipRuntime("0.7.0");
  configureGateway({});
  ASSERT_TRUE(makeManager()->prepareRuntimeIfNeeded());
  shipRuntime(shippedVersion);
  std::ofstream(backups()) << "a file where the backups go";

  makeManager()->start();
  ASSERT_TRUE(eventually([&] { return record().statuses.size() == 2; }));
  const std::regex failed(
      "Sidecar startup failed: Data backup before the upgrade failed \\(cannot create .*\\); "
      "the installed runtime is kept until a backup succeeds");
  EXPECT_TRUE(std::regex_match(record().statuses[1], failed)) << record().statuses[1];
  EXPECT_EQ(readTextFile(runtime() / "QOR_RUNTIME_VERSION"), "0.7.0");
  EXPECT_TRUE(fs::exists(runtime() / "python/bin/python"));
  EXPECT_TRUE(launches().empty());

  fs::remove(backups());
  const auto manager = makeManager();
  manager->start();
  ASSERT_TRUE(eventually([&] { return !record().ready.empty(); })) << record().diagnostics;
  EXPECT_EQ(record().statuses.at(0), "正在升级到新版本 0.8.0…");
  const auto names = namesIn(backups());
  ASSERT_EQ(names.size(), 1u);
  EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(data-0\.7\.0-\d{8}-\d{6}\.zip)")));
  EXPECT_EQ(readTextFile(runtime() / "QOR_RUNTIME_VERSION"), shippedVersion);
}

TEST_F(Recovery, BackupKilledHalfwayLeavesNothingAfterTheNextOne) {
  shipRuntime("0.7.0");
  fs::create_directories(data());
  ASSERT_EQ(*ChildProcess::run({.executable = "/bin/sh",
                                .arguments = {"-c", "head -c 96M /dev/urandom > \"$0\"",
                                              (data() / "blob").string()}}),
            0);
  ASSERT_TRUE(makeManager()->prepareRuntimeIfNeeded());
  shipRuntime(shippedVersion);
  fs::create_directories(backups());
  const std::string earlier[] = {"data-0.6.0-1.zip", "data-0.6.0-2.zip", "data-0.6.0-3.zip"};
  for (int age = 3; const auto& name : earlier) {
    std::ofstream(backups() / name) << name;
    fs::last_write_time(backups() / name, fs::file_time_type::clock::now() - age-- * 1min);
  }
  // What the archiver of an earlier version left beside the archives.
  for (const char* name : {".data-0.6.0-20250101-000000.zip", "ziAb12Cd"}) {
    std::ofstream(backups() / name) << "partial";
  }

  // The whole application killed while zip writes: stopped first, so it cannot
  // clean up after zip, then both killed.
  const auto host =
      launch({.executable = SIDECAR_HOST,
              .arguments = {support().string(), resources().string(), std::to_string(gatewayPort),
                            std::to_string(litellmPort)}});
  std::optional<pid_t> zip;
  ASSERT_TRUE(eventually([&] {
    zip = childRunning(host->pid(), "zip");
    const auto partial = backups() / ".partial";
    return zip && fs::exists(partial) && namesIn(partial).size() == 1;  // zip's temporary file
  }));
  host->signal(SIGSTOP);
  ::kill(*zip, SIGKILL);
  host->kill();
  host->waitForExit();
  ASSERT_FALSE(namesIn(backups() / ".partial").empty());

  ASSERT_TRUE(makeManager()->backupDataBeforeUpgrade("0.7.0"));
  const auto names = namesIn(backups());
  ASSERT_EQ(names.size(), 3u) << "leftovers or too many archives";
  EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(data-0\.6\.0-2\.zip)")));
  EXPECT_TRUE(std::regex_match(names[2], std::regex(R"(data-0\.7\.0-\d{8}-\d{6}\.zip)")));
}

}  // namespace
}  // namespace qor::testing
