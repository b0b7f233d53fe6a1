// Healing instead of giving up: a damaged runtime and the leftovers of an
// interrupted backup. (A gateway that answers late, a crash under the page,
// the exits of replaced gateways and an upgrade that waits for its backup are
// seen through the window, with real timings and a full disk.)
#include <csignal>
#include <fstream>
#include <regex>

#include "sidecar_test_support.h"
#include "support/listings.h"

namespace qor::testing {
namespace {

using Recovery = SidecarTest;

// A runtime missing its gateway is unpacked again, with a backup first. (One missing its
// interpreter is seen through the window.)
TEST_F(Recovery, RuntimeMissingItsGatewayIsUnpackedAgainWithABackup) {
  shipRuntime(shippedVersion);
  fs::create_directories(data());
  std::ofstream(data() / "notes.json") << "keep me";
  const auto manager = makeManager();
  ASSERT_TRUE(manager->prepareRuntimeIfNeeded());
  fs::remove_all(runtime() / "sidecar");
  ASSERT_TRUE(manager->prepareRuntimeIfNeeded());
  EXPECT_TRUE(fs::exists(runtime() / "sidecar/qor_gateway/main.py"));
  EXPECT_EQ(record().statuses.back(), "正在升级到新版本 " + shippedVersion + "…");
  EXPECT_EQ(namesIn(backups()).size(), 1u);
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
    const auto processes = runningProcesses();
    const auto found = std::ranges::find_if(processes, [&](const RunningProcess& process) {
      return process.parent == host->pid() && process.name == "zip";
    });
    zip = found == processes.end() ? std::nullopt : std::optional(found->pid);
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
