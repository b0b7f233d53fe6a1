// Launches the gateway with its command line, working folder and
// environment, passes its output through to standard error, and relaunches
// it with a growing delay whenever it exits while the manager runs.
#include <algorithm>
#include <thread>

#include "base/text.h"
#include "sidecar/sidecar_manager.h"

namespace qor {
namespace {

constexpr std::string_view outputPrefix = "[sidecar] ";
constexpr std::int64_t longestRelaunchDelay = 15;

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
      .onExit =
          [weakSelf = weak_from_this()](int) {
            const auto self = weakSelf.lock();
            if (self && !self->stopping_) self->relaunchAfterExit();
          },
  };

  // Checked under the lock that stop() takes, so a launch can never slip in
  // after stop() has looked for a process.
  std::lock_guard lock(processMutex_);
  if (stopping_) return {};
  auto child = ChildProcess::launch(std::move(options));
  if (!child) return child.error();
  process_ = std::move(child).value();
  return {};
}

void SidecarManager::relaunchAfterExit() {
  std::thread([self = shared_from_this()] {
    const auto attempts = ++self->restartAttempts_;
    self->clock_.sleepFor(relaunchDelay(attempts));
    if (self->stopping_) return;
    (void)self->launchGateway();  // a failed relaunch ends the chain until the next start()
  }).detach();
}

}  // namespace qor
