// Polls the gateway's /healthz until it answers with the shipped runtime
// version, reporting the seconds waited, replacing a stale gateway of another
// version at most twice, and reporting a time-out after maxBootSeconds. After
// that it goes on probing quietly, so a gateway that comes up late (its port
// was taken for a while) still gets its page.
#include <thread>

#include "base/http_client.h"
#include "sidecar/health_answer.h"
#include "sidecar/sidecar_manager.h"

namespace qor {
namespace {

constexpr ScaledClock::Seconds probePause{0.5};
constexpr ScaledClock::Seconds statusProbeLimit{2.0};
constexpr ScaledClock::Seconds versionProbeLimit{2.0};
constexpr int mismatchRetriesAllowed = 2;
constexpr ScaledClock::Seconds lateProbePeriod{3.0};

bool isSuccess(long status) {
  return status >= 200 && status <= 299;
}

}  // namespace

void SidecarManager::waitForHealth() {
  const auto startTime = clock_.now();
  std::thread([self = shared_from_this(), startTime] { self->pollUntilReady(startTime); }).detach();
}

void SidecarManager::pollUntilReady(ScaledClock::TimePoint startTime) {
  const auto deadline = static_cast<double>(maxBootSeconds.load());
  int mismatchRetries = 0;
  while (clock_.since(startTime).count() < deadline) {
    if (stopping_) return;
    switch (probeReadiness(mismatchRetries)) {
      case Probe::ready:
      case Probe::refused:
        return;
      case Probe::replaced:
        continue;  // the loop goes on until the deadline either way
      case Probe::silent:
        break;
    }
    clock_.sleepFor(probePause);
    if (stopping_) return;  // a stopped manager reports nothing more
    const auto waited = static_cast<std::int64_t>(clock_.since(startTime).count());
    postStatus("Starting QOR Velmora… " + std::to_string(waited) + "s");
  }
  postStatus("Sidecar did not become ready within " + std::to_string(maxBootSeconds.load()) +
             "s. Check logs in Application Support.");
  keepProbingQuietly(mismatchRetries);
}

SidecarManager::Probe SidecarManager::probeReadiness(int& mismatchRetries) {
  const auto healthURL = gatewayAddress("/healthz");
  if (!httpOK(healthURL)) return Probe::silent;
  if (refuseForeignGateway()) return Probe::refused;
  const auto version = healthzVersion(healthURL);
  const auto shipped = bundledVersion();
  if (version == shipped || mismatchRetries == mismatchRetriesAllowed) {
    restartAttempts_ = 0;
    readyDelivered_ = true;
    postReady(gatewayAddress("/"));
    return Probe::ready;
  }
  writeDiagnostic("[sidecar] healthz version " + version.value_or("?") + " != bundled " + shipped +
                  "; reaping stale sidecar\n");
  forgetCurrentGateway();  // its exit under the sweep is expected
  reapStaleSidecars();
  (void)launchGateway();
  ++mismatchRetries;
  return Probe::replaced;
}

// No status texts here: the time-out text stays until the page replaces it.
void SidecarManager::keepProbingQuietly(int mismatchRetries) {
  for (;;) {
    clock_.sleepFor(lateProbePeriod);
    if (stopping_) return;
    if (const auto probe = probeReadiness(mismatchRetries);
        probe == Probe::ready || probe == Probe::refused) {
      return;
    }
  }
}

bool SidecarManager::httpOK(const std::string& url) const {
  const auto response = httpGet(url, clock_.toReal(statusProbeLimit));
  return response && isSuccess(response->status);
}

std::optional<std::string> SidecarManager::healthzVersion(const std::string& url) const {
  const auto response = httpGet(url, clock_.toReal(versionProbeLimit));
  if (!response || !isSuccess(response->status)) return std::nullopt;
  return healthzAnswerVersion(response->body);
}

}  // namespace qor
