// Launches the gateway with its command line, working folder and
// environment, passes its output through to standard error, and relaunches
// it with a growing delay whenever the current gateway exits while the
// manager runs, reloading its page once the new one answers.
#include <algorithm>
#include <thread>

#include "base/text.h"
#include "sidecar/sidecar_manager.h"

namespace qor {
namespace {

constexpr std::string_view outputPrefix = "[sidecar] ";
constexpr std::int64_t longestRelaunchDelay = 15;
constexpr ScaledClock::Seconds answerPause{0.5};

// 2, 4, 8, then 15 s for the fourth relaunch and every later one.
ScaledClock::Seconds relaunchDelay(std::int64_t attempts) {
  const std::int64_t exponential = std::int64_t{1} << std::min<std::int64_t>(attempts, 4);
  return ScaledClock::Seconds(std::min(exponential, longestRelaunchDelay));
}

}  // namespace

Result<> SidecarManager::launchGateway() {
  const auto python = pythonURL();
  if (!python) return python.error();
  const auto workingDirectory = sidecarDir();
  if (!workingDirectory) return qorError(4, "sidecar dir unresolved");

  const auto dataPath = dataDirectory().string();
  auto environment = Environment::current();
  environment.set("PYTHONUNBUFFERED", "1");
  environment.set("QOR_DATA_DIR", dataPath);
  environment.set("NO_PROXY", "127.0.0.1,localhost");
  environment.set("no_proxy", "127.0.0.1,localhost");
  environment.set("QOR_GATEWAY_TOKEN", gatewayToken_);

  LaunchOptions options{
      .executable = *python,
      .arguments = {"-m", "qor_gateway.main", "--port", std::to_string(settings_.gatewayPort),
                    "--litellm-port", std::to_string(settings_.litellmPort), "--data-dir",
                    dataPath},
      .workingDirectory = *workingDirectory,
      .environment = std::move(environment),
      .output = OutputMode::capture,
      // One prefix per chunk, no line reassembly; output that is not UTF-8 is dropped.
      .onOutput =
          [diagnostics = settings_.diagnostics](std::string_view chunk) {
            if (isValidUtf8(chunk)) diagnostics(std::string(outputPrefix).append(chunk));
          },
  };

  // Checked under the lock that stop() takes, so a launch can never slip in
  // after stop() has looked for a process.
  std::lock_guard lock(processMutex_);
  if (stopping_) return {};
  const auto launch = launchCount_ + 1;
  // A gateway replaced or reaped meanwhile is no longer current: its exit is
  // expected and relaunches nothing. The check waits for this lock, so it
  // sees the number stored below.
  options.onExit = [weakSelf = weak_from_this(), launch](int) {
    const auto self = weakSelf.lock();
    if (self && !self->stopping_ && self->isCurrentLaunch(launch)) self->relaunchAfterExit(launch);
  };
  auto child = ChildProcess::launch(std::move(options));
  if (!child) return child.error();
  launchCount_ = launch;
  process_ = std::move(child).value();
  return {};
}

// Exit watcher thread. The attempt counts at once, so that whoever waited for
// the exit sees it.
void SidecarManager::relaunchAfterExit(std::uint64_t exitedLaunch) {
  const auto attempts = ++restartAttempts_;
  std::thread([self = shared_from_this(), exitedLaunch, attempts] {
    self->clock_.sleepFor(relaunchDelay(attempts));
    if (self->stopping_ || !self->isCurrentLaunch(exitedLaunch)) return;  // someone launched anew
    if (const auto launched = self->launchGateway(); !launched) {
      self->writeDiagnostic("[sidecar] relaunch failed: " + launched.error().description + "\n");
      return;  // which ends the chain until the next start()
    }
    if (self->readyDelivered_) self->reloadWhenAnswering(self->currentLaunch());
  }).detach();
}

// Runs on the relaunch thread until the gateway answers, exits or is replaced.
void SidecarManager::reloadWhenAnswering(std::uint64_t launch) {
  const auto healthURL = gatewayAddress("/healthz");
  const auto child = process();
  while (!stopping_ && isCurrentLaunch(launch) && child && child->isRunning()) {
    if (httpOK(healthURL)) {
      postReady(gatewayAddress("/"));
      return;
    }
    clock_.sleepFor(answerPause);
  }
}

bool SidecarManager::isCurrentLaunch(std::uint64_t launch) const {
  return currentLaunch() == launch;
}

std::uint64_t SidecarManager::currentLaunch() const {
  std::lock_guard lock(processMutex_);
  return launchCount_;
}

void SidecarManager::forgetCurrentGateway() {
  std::lock_guard lock(processMutex_);
  ++launchCount_;
}

}  // namespace qor
