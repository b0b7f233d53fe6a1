// The install script run for real on real folders: a copy that cannot be
// made, checked or swapped keeps the installed bundle byte for byte and names
// the step that failed, and a kill at any point leaves a complete bundle at
// the bundle path. (A disk that fills up during the copy is seen through the
// window.)
#include <signal.h>

#include <map>

#include "updater/install_script.h"
#include "updater_test_support.h"

namespace qor::testing {
namespace {

constexpr uid_t unprivileged = 65534;  // nobody

// Every file and link below `folder` with its contents (or target) and mode.
std::map<std::string, std::string> snapshotOf(const std::filesystem::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    const auto status = entry.symlink_status();
    auto& described = files[std::filesystem::relative(entry.path(), folder)];
    described = std::to_string(static_cast<int>(status.permissions())) + " ";
    if (entry.is_symlink()) {
      described += "-> " + std::filesystem::read_symlink(entry.path()).string();
    } else if (entry.is_regular_file()) {
      described += readFile(entry.path());
    }
  }
  return files;
}

class InstallScriptRun : public ::testing::Test {
 protected:
  void SetUp() override {
    // Open to the unprivileged user some cases run the script as.
    std::filesystem::permissions(root_, std::filesystem::perms(0755));
  }
  void startAfresh() const {
    for (const auto& entry : std::filesystem::directory_iterator(root_)) {
      std::filesystem::remove_all(entry.path());
    }
    std::filesystem::create_directories(apps_);
    std::filesystem::create_directories(support_);
  }

  // A bundle of `version` with `files` small files; its program appends its version to
  // root_/started.
  void makeBundle(const std::filesystem::path& bundle, const std::string& version,
                  int files = 3) const {
    qor::testing::makeBundle(
        bundle, version,
        "cat \"${0%/*}/../share/qor-velmora/APP_VERSION\" >> " + shellQuoted(started_));
    for (int i = 0; i < files; ++i) {
      writeFile(bundle / "share" / "data" / std::to_string(i),
                version + std::string(100, 'a' + i % 26));
    }
    std::filesystem::create_directory_symlink("data", bundle / "share" / "link");
  }

  // The installed 1.0.0, and 1.1.0 extracted into the staging folder.
  void prepare(int files = 3) {
    makeBundle(installed_, "1.0.0", files);
    makeBundle(staging_ / "QOR Velmora", "1.1.0", files);
    writeFile(image_, "image");
  }

  InstallScript script() const {
    // A process that has ended, so the script does not wait.
    const auto ended = ChildProcess::launch({"/bin/true"}).value();
    ended->waitForExit();
    return {.processId = ended->pid(),
            .newBundle = staging_ / "QOR Velmora",
            .destination = installed_,
            .staging = staging_,
            .image = image_,
            .log = support_ / "update.log",
            .version = "1.1.0",
            .exchangeTool = installed_ / "lib" / "qor-velmora" / "qor-exchange",
            .failureMark = support_ / "update-failed"};
  }

  std::filesystem::path write(const InstallScript& script) const {
    const auto file = root_ / "install.sh";
    EXPECT_TRUE(writeFileAtomically(file, script.text()));
    std::filesystem::permissions(file, std::filesystem::perms(0755));
    return file;
  }

  // Runs the script to its end, as `user` when given, and waits for the program it starts.
  void run(const InstallScript& script, std::optional<uid_t> user = {}) const {
    const auto file = write(script).string();
    LaunchOptions options{"/bin/bash", {file}};
    if (user) {
      const auto id = std::to_string(*user);
      options = {"/usr/bin/setpriv",
                 {"--reuid=" + id, "--regid=" + id, "--clear-groups", "/bin/bash", file}};
    }
    EXPECT_EQ(ChildProcess::run(options).value(), 0);
    EXPECT_TRUE(eventually([&] { return readFile(started_).ends_with("\n"); }));
  }

  const TemporaryFolder folder_{"qor-install"};
  const std::filesystem::path root_ = folder_.path();
  const std::filesystem::path apps_ = root_ / "apps";  // the folder the bundle is installed in
  const std::filesystem::path installed_ = apps_ / "QOR Velmora";
  const std::filesystem::path staging_ = root_ / "staging";  // the image, extracted
  const std::filesystem::path image_ = root_ / "qor-update-1.tar.gz";
  const std::filesystem::path support_ = root_ / "support";  // update.log and the failure mark
  const std::filesystem::path started_ = root_ / "started";  // each started program's version
};

TEST_F(InstallScriptRun, AFailedInstallKeepsTheInstalledBundleAndLeavesTheVersionForTheNextStart) {
  struct Case {
    std::string name;
    std::function<void(InstallScript&)> arrange;
    std::string reason;
    std::optional<uid_t> user;
  };
  const Case cases[] = {
      {"a folder the user cannot write",
       [this](InstallScript&) {
         const auto owner = std::to_string(unprivileged) + ":" + std::to_string(unprivileged);
         ASSERT_EQ(ChildProcess::run({"/bin/chown", {"-R", owner, root_}}).value(), 0);
         std::filesystem::permissions(apps_, std::filesystem::perms(0555));
       },
       "cannot copy the new version next to *", unprivileged},
      {"an image of another version", [](InstallScript& script) { script.version = "1.2.0"; },
       "the copy's APP_VERSION is not 1.2.0"},
      {"an image without the program",
       [this](InstallScript&) {
         std::filesystem::remove(staging_ / "QOR Velmora" / "bin" / "qor-velmora");
       },
       "the copy has no executable bin/qor-velmora"},
      {"a swap the filesystem refuses",
       [](InstallScript& script) { script.exchangeTool = "/bin/false"; },
       "cannot swap the copy with *"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.user && geteuid() != 0) continue;  // needs root to run as another user
    startAfresh();
    prepare();
    auto script = this->script();
    c.arrange(script);
    const auto before = snapshotOf(installed_);
    run(script, c.user);

    EXPECT_EQ(snapshotOf(installed_), before);
    EXPECT_EQ(namesIn(apps_), std::vector<std::string>{"QOR Velmora"}) << "no copy left";
    EXPECT_PRED2(fits,
                 "*] updating */QOR Velmora -> " + installed_.string() +
                     "\n*copy FAILED: " + c.reason + "\n*] relaunched\n",
                 readFile(script.log));
    EXPECT_EQ(readFile(started_), "1.0.0\n");
    EXPECT_EQ(readFile(script.failureMark), script.version + "\n");
    EXPECT_EQ(std::filesystem::status(script.failureMark).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_FALSE(std::filesystem::exists(staging_));
    EXPECT_FALSE(std::filesystem::exists(image_));
  }
}

TEST_F(InstallScriptRun, AKillAtAnyPointLeavesACompleteBundleThatTheNextUpdateReplaces) {
  // Enough files that the copy and the removal take a while.
  constexpr int files = 1000;
  const auto log = support_ / "update.log";
  const std::pair<std::string, std::function<bool()>> points[] = {
      {"while copying",
       [next = InstallScript{.destination = installed_}.nextBundle()] {
         return std::filesystem::exists(next / "share");
       }},
      {"after the swap",
       [&] { return readFile(installed_ / "share" / "qor-velmora" / "APP_VERSION") == "1.1.0\n"; }},
      {"while removing the old bundle",
       [&] { return readFile(log).find("copy OK") != std::string::npos; }},
  };
  for (const auto& [point, reached] : points) {
    SCOPED_TRACE(point);
    startAfresh();
    prepare(files);
    const auto oldBundle = snapshotOf(installed_), newBundle = snapshotOf(staging_ / "QOR Velmora");
    const auto running = ChildProcess::launch({.executable = "/bin/bash",
                                               .arguments = {write(script())},
                                               .output = OutputMode::discard,
                                               .detached = true})
                             .value();
    ASSERT_TRUE(eventually(reached));
    ASSERT_TRUE(running->isRunning()) << "the point was passed while the script ran";
    kill(-running->pid(), SIGKILL);  // the script and whatever it runs
    running->waitForExit();

    const auto now = snapshotOf(installed_);
    EXPECT_TRUE(now == oldBundle || now == newBundle) << now.size() << " entries";
    ASSERT_EQ(ChildProcess::run({installed_ / "bin" / "qor-velmora"}).value(), 0);
    EXPECT_EQ(readFile(started_), readFile(installed_ / "share" / "qor-velmora" / "APP_VERSION"));

    // The next update removes what the killed one left and completes.
    std::filesystem::remove_all(staging_), std::filesystem::remove(started_);
    makeBundle(staging_ / "QOR Velmora", "1.1.0", files);
    run(script());
    EXPECT_EQ(snapshotOf(installed_), newBundle);
    EXPECT_EQ(namesIn(apps_), std::vector<std::string>{"QOR Velmora"});
    EXPECT_PRED2(fits, "*\ncopy OK\n*] relaunched\n", readFile(log));
  }
}

}  // namespace
}  // namespace qor::testing
