// Child processes: launch with a plain options struct, then signal, wait for
// or forget the returned handle. Each captured child has a reader thread for
// its output and each child an exit watcher thread; both outlive the handle.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/environment.h"
#include "base/error.h"

namespace qor {

enum class OutputMode {
  inherit,  // the child writes to this process's standard output and error
  discard,  // to /dev/null
  capture,  // standard output and error merged into one pipe, read by onOutput
};

struct LaunchOptions {
  std::filesystem::path executable;
  std::vector<std::string> arguments;  // after the executable's own name
  std::optional<std::filesystem::path> workingDirectory;
  std::optional<Environment> environment;  // none: this process's environment
  OutputMode output = OutputMode::inherit;
  // With OutputMode::capture, called on the reader thread once per read, with
  // whatever bytes were available.
  std::function<void(std::string_view)> onOutput;
  // With OutputMode::capture, called on the reader thread after the last
  // onOutput, once every process holding the output has closed it.
  std::function<void()> onOutputEnd;
  // Called on the exit watcher thread with the exit status once the child has
  // exited, before waitForExit() returns to anyone.
  std::function<void(int status)> onExit;
  // The child receives SIGTERM when this process dies, even by SIGKILL.
  bool terminateWithParent = true;
  // The child starts a session of its own, so it outlives this process and
  // its process group.
  bool detached = false;
};

class ChildProcess {
 public:
  // Any thread. Fails when the executable cannot be started (missing, not
  // executable, bad working folder).
  static Result<std::shared_ptr<ChildProcess>> launch(LaunchOptions options);

  // Launches and waits for the exit status.
  static Result<int> run(LaunchOptions options);

  struct CapturedRun {
    int status;
    std::string output;  // standard output and error, merged
  };
  // Launches with OutputMode::capture and waits for the exit status and the
  // end of the output (so for any grandchild still holding it too).
  static Result<CapturedRun> runCapturingOutput(LaunchOptions options);

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool isRunning() const;

  // Sends a signal unless the child has already been reaped, so a recycled
  // process id is never hit.
  void signal(int signalNumber);
  void terminate() { signal(SIGTERM); }
  void kill() { signal(SIGKILL); }

  // The exit status: the exit code, or 128 + the signal that ended it.
  int waitForExit();
  std::optional<int> waitForExitWithTimeout(std::chrono::milliseconds timeout);

  struct State;
  ChildProcess(pid_t pid, std::shared_ptr<State> state);

 private:
  pid_t pid_;
  std::shared_ptr<State> state_;
};

}  // namespace qor
