// Launching, observing, signalling and waiting for real child processes.
#include "base/child_process.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <thread>

namespace qor {
namespace {

using namespace std::chrono_literals;

// Children of this process that have exited but were never reaped.
std::vector<pid_t> zombieChildren() {
  std::vector<pid_t> zombies;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream in(entry.path() / "stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), {});
    const auto close = stat.rfind(')');
    if (close == std::string::npos) continue;  // gone meanwhile
    std::istringstream rest(stat.substr(close + 1));
    char state = 0;
    pid_t parent = 0;
    if (rest >> state >> parent && parent == getpid() && state == 'Z') {
      zombies.push_back(std::stoi(name));
    }
  }
  return zombies;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

// A private temporary folder.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qor-child-XXXXXX").string();
    path_ = std::filesystem::canonical(mkdtemp(pattern.data()));
  }
  ~TemporaryFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Output of a child, collected on its reader thread (which may outlive the
// test, hence the shared state).
class CapturedOutput {
 public:
  std::function<void(std::string_view)> sink() {
    return [state = state_](std::string_view bytes) {
      std::lock_guard lock(state->mutex);
      state->text.append(bytes);
    };
  }
  std::string text() const {
    std::lock_guard lock(state_->mutex);
    return state_->text;
  }

 private:
  struct State {
    std::mutex mutex;
    std::string text;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

// Puts `text` on this process's standard input while it lives, so that a
// child that inherited standard input would read it.
class ScopedStandardInput {
 public:
  explicit ScopedStandardInput(std::string_view text) {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("cannot create a pipe");
    [[maybe_unused]] const ssize_t written = write(fds[1], text.data(), text.size());
    close(fds[1]);
    saved_ = dup(STDIN_FILENO);
    dup2(fds[0], STDIN_FILENO);
    close(fds[0]);
  }
  ~ScopedStandardInput() {
    if (saved_ < 0) {
      close(STDIN_FILENO);
      return;
    }
    dup2(saved_, STDIN_FILENO);
    close(saved_);
  }

 private:
  int saved_ = -1;
};

// Kills a child this test started, however the test ends.
struct KillOnExit {
  std::shared_ptr<ChildProcess> child;
  ~KillOnExit() {
    child->kill();
    child->waitForExitWithTimeout(10s);
  }
};

std::shared_ptr<ChildProcess> launchSleeper() {
  auto launched = ChildProcess::launch({.executable = "/bin/sleep", .arguments = {"60"}});
  if (!launched) throw std::runtime_error(launched.error().description);
  return launched.value();
}

TEST(ChildProcess, LaunchFailuresAreErrorsAndLeaveNoZombie) {
  TemporaryFolder folder;
  const auto notExecutable = folder.path() / "script.sh";
  std::ofstream(notExecutable) << "#!/bin/sh\nexit 0\n";
  chmod(notExecutable.c_str(), 0644);

  struct Case {
    LaunchOptions options;
    int code;
  };
  const std::vector<Case> cases = {
      {{.executable = folder.path() / "no-such-program"}, ENOENT},
      {{.executable = notExecutable}, EACCES},
      {{.executable = "/bin/true", .workingDirectory = folder.path() / "no-such-folder"}, ENOENT},
  };
  for (const auto& [options, code] : cases) {
    SCOPED_TRACE(options.executable.string());
    const auto launched = ChildProcess::launch(options);
    ASSERT_FALSE(launched);
    EXPECT_EQ(launched.error().code, code);
    EXPECT_FALSE(launched.error().domain.empty());
    EXPECT_EQ(launched.error().description,
              "cannot launch " + options.executable.string() + ": " + std::strerror(code));
  }
  EXPECT_EQ(zombieChildren(), std::vector<pid_t>{});
}

TEST(ChildProcess, ExitStatusIsTheCodeOr128PlusTheSignal) {
  EXPECT_EQ(ChildProcess::run({.executable = "/bin/sh", .arguments = {"-c", "exit 7"}}).value(), 7);

  // Shared with the exit watcher thread, which may outlive a failed test.
  const auto reported = std::make_shared<std::promise<int>>();
  auto launched = ChildProcess::launch({
      .executable = "/bin/sleep",
      .arguments = {"60"},
      .onExit = [reported](int status) { reported->set_value(status); },
  });
  ASSERT_TRUE(launched) << launched.error().description;
  const auto killed = launched.value();
  EXPECT_TRUE(killed->isRunning());
  killed->kill();
  EXPECT_EQ(killed->waitForExit(), 128 + SIGKILL);
  EXPECT_FALSE(killed->isRunning());
  auto onExit = reported->get_future();
  ASSERT_EQ(onExit.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(onExit.get(), 128 + SIGKILL);

  // Nothing reaches a reaped child, and its status stays as it was.
  killed->terminate();
  killed->signal(SIGKILL);
  EXPECT_EQ(killed->waitForExit(), 128 + SIGKILL);
  EXPECT_EQ(zombieChildren(), std::vector<pid_t>{});
}

TEST(ChildProcess, CaptureMergesOutputAndErrorInOrder) {
  // The child's standard input is empty, whatever this process's holds.
  const ScopedStandardInput input("typed into the terminal\n");
  CapturedOutput output;
  const auto status = ChildProcess::run({
      .executable = "/bin/sh",
      .arguments = {"-c",
                    "echo one; echo two >&2; read line && echo \"read $line\" || echo 'no input';"
                    "echo three"},
      .output = OutputMode::capture,
      .onOutput = output.sink(),
  });
  ASSERT_TRUE(status) << status.error().description;
  EXPECT_EQ(*status, 0);
  // The reader thread may still be draining the pipe when the exit is seen.
  EXPECT_TRUE(eventually([&] { return output.text() == "one\ntwo\nno input\nthree\n"; }, 10s))
      << output.text();
}

TEST(ChildProcess, EnvironmentAndWorkingFolderReachTheChild) {
  TemporaryFolder folder;
  setenv("QOR_CHILD_TEST_PARENT_ONLY", "parent", 1);
  Environment environment;
  environment.set("QOR_CHILD_TEST_GIVEN", "hello world");
  const std::string report =
      "printf '%s|%s|%s' \"${QOR_CHILD_TEST_GIVEN-unset}\" "
      "\"${QOR_CHILD_TEST_PARENT_ONLY-unset}\" \"$(pwd -P)\"";

  CapturedOutput given;
  const auto withGiven = ChildProcess::run({
      .executable = "/bin/sh",
      .arguments = {"-c", report},
      .workingDirectory = folder.path(),
      .environment = environment,
      .output = OutputMode::capture,
      .onOutput = given.sink(),
  });
  CapturedOutput inherited;
  const auto withInherited = ChildProcess::run({
      .executable = "/bin/sh",
      .arguments = {"-c", report},
      .output = OutputMode::capture,
      .onOutput = inherited.sink(),
  });
  unsetenv("QOR_CHILD_TEST_PARENT_ONLY");

  ASSERT_TRUE(withGiven && withInherited);
  // A given environment replaces this process's, it is not merged into it.
  const std::string expectedGiven = "hello world|unset|" + folder.path().string();
  const std::string expectedInherited = "unset|parent|" + std::filesystem::current_path().string();
  EXPECT_TRUE(eventually([&] { return given.text() == expectedGiven; }, 10s)) << given.text();
  EXPECT_TRUE(eventually([&] { return inherited.text() == expectedInherited; }, 10s))
      << inherited.text();
}

TEST(ChildProcess, WaitWithTimeoutGivesUpOnARunningChild) {
  const auto sleeper = launchSleeper();
  KillOnExit cleanup{sleeper};

  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(sleeper->waitForExitWithTimeout(300ms), std::nullopt);
  EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms);
  EXPECT_TRUE(sleeper->isRunning());

  sleeper->terminate();
  EXPECT_EQ(sleeper->waitForExitWithTimeout(10s), 128 + SIGTERM);
}

TEST(ChildProcess, ConcurrentLaunchesKeepTheirOwnStatus) {
  constexpr int launches = 8;
  std::vector<std::future<Result<int>>> results;
  for (int code = 0; code < launches; ++code) {
    results.push_back(std::async(std::launch::async, [code] {
      return ChildProcess::run(
          {.executable = "/bin/sh", .arguments = {"-c", "exit " + std::to_string(code)}});
    }));
  }
  for (int code = 0; code < launches; ++code) {
    const auto status = results[code].get();
    ASSERT_TRUE(status) << status.error().description;
    EXPECT_EQ(*status, code);
  }
}

}  // namespace
}  // namespace qor
