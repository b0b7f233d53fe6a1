// Healing instead of giving up: a gateway that answers late, a crash while the
// page shows, the exits of replaced gateways, a damaged runtime, a backup that
// cannot be made and the leftovers of an interrupted one.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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

// A listener that never answers, as another program holding the port would.
int holdPort(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{
      .sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}};
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 8) != 0) {
    throw std::runtime_error("cannot hold port " + std::to_string(port));
  }
  return fd;
}

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

TEST_F(Recovery, GatewayAnsweringAfterTheTimeOutGetsItsPageWithoutFurtherTexts) {
  developerMode();
  configureGateway({});
  const int held = holdPort(gatewayPort);  // each launch fails until the port is free
  const auto manager = makeManager(10);
  manager->maxBootSeconds = 3;
  manager->start();
  const std::string timeOut =
      "Sidecar did not become ready within 3s. Check logs in Application Support.";
  ASSERT_TRUE(eventually([&] {
    const auto statuses = record().statuses;
    return !statuses.empty() && statuses.back() == timeOut;
  }));
  EXPECT_TRUE(record().ready.empty());

  close(held);
  ASSERT_TRUE(eventually([&] { return !record().ready.empty(); })) << record().diagnostics;
  EXPECT_EQ(record().ready, std::vector{"http://127.0.0.1:" + std::to_string(gatewayPort) + "/"});
  EXPECT_EQ(record().statuses.back(), timeOut) << "a status text after the time-out";
  EXPECT_GT(launches().size(), 1u);
  EXPECT_EQ(manager->restartAttempts(), 0) << "a ready gateway resets the count";
}

TEST_F(Recovery, CrashWhileThePageShowsReloadsItOnceTheNewGatewayAnswers) {
  developerMode();
  configureGateway({});
  const auto manager = makeManager(10);
  manager->start();
  ASSERT_TRUE(eventually([&] { return record().ready.size() == 1; }));
  const auto statuses = record().statuses;

  manager->process()->kill();
  ASSERT_TRUE(eventually([&] { return record().ready.size() == 2; })) << record().diagnostics;
  EXPECT_EQ(record().ready[1], record().ready[0]);
  EXPECT_EQ(launches().size(), 2u);
  EXPECT_EQ(manager->restartAttempts(), 1) << "the reload is no readiness wait";
  EXPECT_EQ(record().statuses, statuses) << "the reload is quiet";
}

TEST_F(Recovery, ReplacedGatewaysExitWithoutRelaunches) {
  developerMode();
  configureGateway({{"version", "0.7.0"}});  // every gateway reports another version
  const auto manager = makeManager(10);
  manager->start();
  ASSERT_TRUE(eventually([&] { return !record().ready.empty(); })) << record().diagnostics;
  // Once the replaced ones are gone the manager has handled their exits: a relaunch would count.
  ASSERT_EQ(launches().size(), 3u) << record().diagnostics;
  for (const auto& replaced : {launches()[0], launches()[1]}) {
    EXPECT_TRUE(eventually([&] { return kill(replaced["pid"].get<pid_t>(), 0) != 0; }));
  }
  EXPECT_EQ(record().ready.size(), 1u);
  EXPECT_EQ(manager->restartAttempts(), 0);
  EXPECT_TRUE(manager->process()->isRunning());
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
