// Launch errors, exit statuses and merged output of real child processes;
// the rest is exercised through the supervisor tests.
#include "base/child_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <mutex>
#include <thread>

namespace qor {
namespace {

using namespace std::chrono_literals;

TEST(ChildProcess, LaunchFailuresAreErrorsAndLeaveNoChild) {
  const std::filesystem::path missing = "/nonexistent/qor-child-test";
  const std::pair<LaunchOptions, int> cases[] = {
      {{.executable = missing}, ENOENT},
      {{.executable = "/etc/passwd"}, EACCES},  // not executable
      {{.executable = "/bin/true", .workingDirectory = missing}, ENOENT},
  };
  for (const auto& [options, code] : cases) {
    const auto launched = ChildProcess::launch(options);
    ASSERT_FALSE(launched) << options.executable;
    EXPECT_EQ(launched.error().code, code);
    EXPECT_EQ(launched.error().description,
              "cannot launch " + options.executable.string() + ": " + std::strerror(code));
  }
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child (or zombie) was left behind";
}

TEST(ChildProcess, ExitStatusIsTheCodeOr128PlusTheSignal) {
  EXPECT_EQ(ChildProcess::run({.executable = "/bin/sh", .arguments = {"-c", "exit 7"}}).value(), 7);

  const auto reported = std::make_shared<std::promise<int>>();  // the watcher may outlive us
  LaunchOptions options{.executable = "/bin/sleep", .arguments = {"60"}};
  options.onExit = [reported](int status) { reported->set_value(status); };
  const auto sleeper = ChildProcess::launch(options).value();
  EXPECT_EQ(sleeper->waitForExitWithTimeout(200ms), std::nullopt);
  EXPECT_TRUE(sleeper->isRunning());
  sleeper->terminate();
  EXPECT_EQ(sleeper->waitForExit(), 128 + SIGTERM);
  EXPECT_FALSE(sleeper->isRunning());
  auto onExit = reported->get_future();
  ASSERT_EQ(onExit.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(onExit.get(), 128 + SIGTERM);
  sleeper->kill();  // a reaped child is never signalled again, and its status stays
  EXPECT_EQ(sleeper->waitForExit(), 128 + SIGTERM);
}

TEST(ChildProcess, CaptureMergesOutputAndErrorInOrder) {
  const auto captured = std::make_shared<std::pair<std::mutex, std::string>>();
  const auto text = [captured] {
    std::lock_guard lock(captured->first);
    return captured->second;
  };
  LaunchOptions options{.executable = "/bin/sh",
                        .arguments = {"-c", "echo one; echo two >&2; echo three"},
                        .output = OutputMode::capture};
  options.onOutput = [captured](std::string_view bytes) {
    std::lock_guard lock(captured->first);
    captured->second.append(bytes);
  };
  EXPECT_EQ(ChildProcess::run(options).value(), 0);
  // The reader thread may still be draining the pipe when the exit is seen.
  for (int i = 0; i < 500 && text().size() < 14; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(text(), "one\ntwo\nthree\n");
}

}  // namespace
}  // namespace qor
