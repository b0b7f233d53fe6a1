// Launch errors, exit statuses and merged output of real child processes;
// the rest is exercised through the supervisor tests.
#include "base/child_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <future>

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
  ASSERT_EQ(onExit.wait_for(0s), std::future_status::ready) << "told before the waiters wake";
  EXPECT_EQ(onExit.get(), 128 + SIGTERM);
  sleeper->kill();  // a reaped child is never signalled again, and its status stays
  EXPECT_EQ(sleeper->waitForExit(), 128 + SIGTERM);
}

TEST(ChildProcess, CaptureMergesOutputAndErrorInOrder) {
  const auto captured = ChildProcess::runCapturingOutput(
      {.executable = "/bin/sh", .arguments = {"-c", "echo one; echo two >&2; echo three"}});
  ASSERT_TRUE(captured);
  EXPECT_EQ(captured->status, 0);
  EXPECT_EQ(captured->output, "one\ntwo\nthree\n");
}

}  // namespace
}  // namespace qor
