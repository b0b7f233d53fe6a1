#include "base/child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <thread>

namespace qor {

struct ChildProcess::State {
  explicit State(pid_t pid) : pid(pid) {}
  const pid_t pid;
  std::mutex mutex;
  std::condition_variable exitedCondition;
  bool reaped = false;
  int status = 0;
};

namespace {

// Everything the child needs, prepared before it starts: until exec
// the child may only make system calls.
struct ExecPlan {
  std::string executable;
  std::vector<std::string> argumentStrings;
  std::vector<std::string> environmentStrings;
  std::vector<char*> argv;
  std::vector<char*> envp;
  std::string workingDirectory;
  int standardInput = -1;
  int standardOutput = -1;
  int standardError = -1;
  bool terminateWithParent = true;
  bool detached = false;
  pid_t parentPid = 0;
};

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

// Tells the parent why the child could not start, then ends the child.
[[noreturn]] void reportExecFailure(int errorPipe) {
  const int err = errno;
  [[maybe_unused]] ssize_t ignored = write(errorPipe, &err, sizeof err);
  _exit(127);
}

[[noreturn]] void execChild(const ExecPlan& plan, int errorPipe) {
  const auto fail = [errorPipe] { reportExecFailure(errorPipe); };
  if (plan.detached) setsid();
  if (plan.terminateWithParent) {
    if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) fail();
    // The parent may have died before the request above took effect.
    if (getppid() != plan.parentPid) _exit(127);
  }
  // Every signal is still blocked (the spawner's thread blocks them all), so
  // no handler of the parent can run here before the defaults are back.
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  for (int signalNumber = 1; signalNumber < NSIG; ++signalNumber) {
    sigaction(signalNumber, &defaultAction, nullptr);  // KILL, STOP and libc's own refuse; fine
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (dup2(plan.standardInput, STDIN_FILENO) < 0 || dup2(plan.standardOutput, STDOUT_FILENO) < 0 ||
      dup2(plan.standardError, STDERR_FILENO) < 0) {
    fail();
  }
  if (!plan.workingDirectory.empty() && chdir(plan.workingDirectory.c_str()) != 0) fail();
  execve(plan.executable.c_str(), plan.argv.data(), plan.envp.data());
  reportExecFailure(errorPipe);
}

Result<pid_t> forkAndExec(const ExecPlan& plan) {
  int errorPipe[2];
  if (pipe2(errorPipe, O_CLOEXEC) != 0)
    return systemError(errno, "cannot launch " + plan.executable);
  FileDescriptor readEnd(errorPipe[0]);
  FileDescriptor writeEnd(errorPipe[1]);
  // The child borrows the parent's memory until exec instead of copying its
  // page tables, which for a shell holding the web engine and a GL driver
  // takes tens of milliseconds while the parent keeps mapping libraries.
  const pid_t pid = vfork();
  if (pid < 0) return systemError(errno, "cannot launch " + plan.executable);
  if (pid == 0) execChild(plan, writeEnd.get());
  writeEnd.reset();
  int childErrno = 0;
  ssize_t got;
  do {
    got = read(readEnd.get(), &childErrno, sizeof childErrno);
  } while (got < 0 && errno == EINTR);
  if (got == sizeof childErrno) {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return systemError(childErrno, "cannot launch " + plan.executable);
  }
  return pid;
}

// A parent-death signal follows the thread that forked the child, not the
// process. Every child is therefore forked on this one thread, which lives as
// long as the process does.
class Spawner {
 public:
  static Spawner& instance() {
    static Spawner* spawner = new Spawner;  // never destroyed: its thread must outlive every child
    return *spawner;
  }

  Result<pid_t> spawn(const ExecPlan& plan) {
    std::packaged_task<Result<pid_t>()> task([&plan] { return forkAndExec(plan); });
    auto result = task.get_future();
    {
      std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
    return result.get();
  }

 private:
  Spawner() {
    std::thread([this] {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_SETMASK, &all, nullptr);
      serve();
    }).detach();
  }

  [[noreturn]] void serve() {
    for (;;) {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return !tasks_.empty(); });
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::packaged_task<Result<pid_t>()>> tasks_;
};

int decodeWaitStatus(int raw) {
  if (WIFEXITED(raw)) return WEXITSTATUS(raw);
  if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
  return raw;
}

// The exit status as decodeWaitStatus() gives it, from what waitid() tells.
int exitStatusOf(const siginfo_t& info) {
  return info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
}

void watchForExit(std::shared_ptr<ChildProcess::State> state, std::function<void(int)> onExit) {
  // Wait without reaping first, so that signal() can never reach a recycled id.
  siginfo_t info{};
  int waited;
  do {
    waited = waitid(P_PID, state->pid, &info, WEXITED | WNOWAIT);
  } while (waited != 0 && errno == EINTR);
  // Before the waiters wake: whoever waited for the exit also sees what it set off.
  if (onExit) onExit(waited == 0 ? exitStatusOf(info) : -1);
  {
    std::lock_guard lock(state->mutex);
    int raw = 0;
    pid_t reaped;
    do {
      reaped = waitpid(state->pid, &raw, 0);
    } while (reaped < 0 && errno == EINTR);
    state->status = reaped == state->pid ? decodeWaitStatus(raw) : -1;
    state->reaped = true;
  }
  state->exitedCondition.notify_all();
}

void readOutput(int fd, std::function<void(std::string_view)> onOutput,
                std::function<void()> onOutputEnd) {
  FileDescriptor pipe(fd);
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t got = read(pipe.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    if (onOutput) onOutput(std::string_view(buffer, static_cast<size_t>(got)));
  }
  if (onOutputEnd) onOutputEnd();
}

}  // namespace

ChildProcess::ChildProcess(pid_t pid, std::shared_ptr<State> state)
    : pid_(pid), state_(std::move(state)) {}

Result<std::shared_ptr<ChildProcess>> ChildProcess::launch(LaunchOptions options) {
  ExecPlan plan;
  plan.executable = options.executable.string();
  plan.argumentStrings.push_back(plan.executable);
  plan.argumentStrings.insert(plan.argumentStrings.end(), options.arguments.begin(),
                              options.arguments.end());
  plan.environmentStrings = options.environment.value_or(Environment::current()).entries();
  for (auto& argument : plan.argumentStrings) plan.argv.push_back(argument.data());
  plan.argv.push_back(nullptr);
  for (auto& entry : plan.environmentStrings) plan.envp.push_back(entry.data());
  plan.envp.push_back(nullptr);
  if (options.workingDirectory) plan.workingDirectory = options.workingDirectory->string();
  plan.terminateWithParent = options.terminateWithParent;
  plan.detached = options.detached;
  plan.parentPid = getpid();

  FileDescriptor devNull(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (devNull.get() < 0) return systemError(errno, "cannot open /dev/null");
  FileDescriptor outputRead, outputWrite;
  plan.standardInput = devNull.get();
  switch (options.output) {
    case OutputMode::inherit:
      plan.standardOutput = STDOUT_FILENO;
      plan.standardError = STDERR_FILENO;
      break;
    case OutputMode::discard:
      plan.standardOutput = plan.standardError = devNull.get();
      break;
    case OutputMode::capture: {
      int fds[2];
      if (pipe2(fds, O_CLOEXEC) != 0) return systemError(errno, "cannot create a pipe");
      outputRead.reset(fds[0]);
      outputWrite.reset(fds[1]);
      plan.standardOutput = plan.standardError = outputWrite.get();
      break;
    }
  }

  const auto pid = Spawner::instance().spawn(plan);
  if (!pid) return pid.error();
  outputWrite.reset();

  auto state = std::make_shared<State>(*pid);
  if (options.output == OutputMode::capture) {
    std::thread(readOutput, outputRead.release(), std::move(options.onOutput),
                std::move(options.onOutputEnd))
        .detach();
  }
  std::thread(watchForExit, state, std::move(options.onExit)).detach();
  return std::make_shared<ChildProcess>(*pid, std::move(state));
}

Result<int> ChildProcess::run(LaunchOptions options) {
  auto child = launch(std::move(options));
  if (!child) return child.error();
  return child.value()->waitForExit();
}

Result<ChildProcess::CapturedRun> ChildProcess::runCapturingOutput(LaunchOptions options) {
  struct Captured {
    std::mutex mutex;
    std::condition_variable endedCondition;
    std::string output;
    bool ended = false;
  };
  const auto captured = std::make_shared<Captured>();
  options.output = OutputMode::capture;
  options.onOutput = [captured](std::string_view bytes) {
    std::lock_guard lock(captured->mutex);
    captured->output.append(bytes);
  };
  options.onOutputEnd = [captured] {
    std::lock_guard lock(captured->mutex);
    captured->ended = true;
    captured->endedCondition.notify_all();
  };
  const auto status = run(std::move(options));
  if (!status) return status.error();
  std::unique_lock lock(captured->mutex);
  captured->endedCondition.wait(lock, [&] { return captured->ended; });
  return CapturedRun{*status, std::move(captured->output)};
}

bool ChildProcess::isRunning() const {
  std::lock_guard lock(state_->mutex);
  return !state_->reaped;
}

void ChildProcess::signal(int signalNumber) {
  std::lock_guard lock(state_->mutex);
  if (!state_->reaped) ::kill(pid_, signalNumber);
}

int ChildProcess::waitForExit() {
  std::unique_lock lock(state_->mutex);
  state_->exitedCondition.wait(lock, [this] { return state_->reaped; });
  return state_->status;
}

std::optional<int> ChildProcess::waitForExitWithTimeout(std::chrono::milliseconds timeout) {
  std::unique_lock lock(state_->mutex);
  if (!state_->exitedCondition.wait_for(lock, timeout, [this] { return state_->reaped; })) {
    return std::nullopt;
  }
  return state_->status;
}

}  // namespace qor
