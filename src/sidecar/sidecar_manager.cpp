#include "sidecar/sidecar_manager.h"

#include <thread>

#include "base/bundle.h"
#include "base/files.h"
#include "base/user_data.h"
#include "sidecar/diagnostic_log.h"
#include "sidecar/gateway_token.h"
#include "sidecar/stale_sidecar_reaper.h"

namespace qor {
namespace {

constexpr ScaledClock::Seconds stopGrace{1.2};

SidecarManager::Settings withDefaults(SidecarManager::Settings settings) {
  if (settings.supportDirectory.empty()) settings.supportDirectory = userDataDirectory();
  if (settings.resourceDirectory.empty()) settings.resourceDirectory = bundleResourceDirectory();
  if (!settings.diagnostics) {
    settings.diagnostics =
        logAndStandardError(settings.supportDirectory / productFolderName / logFolderName);
  }
  return settings;
}

}  // namespace

SidecarManager::SidecarManager(std::shared_ptr<MainThreadQueue> mainThread)
    : SidecarManager(std::move(mainThread), Settings{}) {}

SidecarManager::SidecarManager(std::shared_ptr<MainThreadQueue> mainThread, Settings settings)
    : mainThread_(std::move(mainThread)),
      settings_(withDefaults(std::move(settings))),
      clock_(settings_.clockSpeed),
      gatewayToken_(newGatewayToken()) {}

void SidecarManager::start() {
  stopping_ = false;
  readyDelivered_ = false;
  std::thread([self = shared_from_this()] { self->runStartSequence(); }).detach();
}

void SidecarManager::runStartSequence() {
  if (const auto started = startSteps(); !started) {
    const auto text = "Sidecar startup failed: " + started.error().description;
    writeDiagnostic("[sidecar] " + text + "\n");  // the label's text, kept in the log
    postStatus(text);
  }
}

Result<> SidecarManager::startSteps() {
  // Other accounts have no business in the user's folders.
  if (auto made = makePrivateFolder(productFolder()); !made) return made;
  if (auto made = makePrivateFolder(dataDirectory()); !made) return made;
  if (!developerMode()) {
    if (auto prepared = prepareRuntimeIfNeeded(); !prepared) return prepared;
  }
  reapStaleSidecars();
  if (refuseForeignGateway()) return {};
  if (auto launched = launchGateway(); !launched) return launched;
  waitForHealth();
  return {};
}

void SidecarManager::stop() {
  stopping_ = true;
  const auto child = process();
  if (child && child->isRunning()) {
    child->terminate();
    if (!child->waitForExitWithTimeout(clock_.toReal(stopGrace))) child->kill();
  }
  std::lock_guard lock(processMutex_);
  process_.reset();
}

std::shared_ptr<ChildProcess> SidecarManager::process() const {
  std::lock_guard lock(processMutex_);
  return process_;
}

void SidecarManager::reapStaleSidecars() const {
  qor::reapStaleSidecars({settings_.gatewayPort, settings_.litellmPort}, clock_,
                         settings_.diagnostics);
}

std::string SidecarManager::gatewayAddress(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(settings_.gatewayPort) + std::string(path);
}

void SidecarManager::postStatus(std::string text) const {
  if (!onStatus) return;
  mainThread_->post([callback = onStatus, text = std::move(text)] { callback(text); });
}

void SidecarManager::postReady(std::string url) const {
  if (!onReady) return;
  mainThread_->post([callback = onReady, url = std::move(url)] { callback(url); });
}

void SidecarManager::writeDiagnostic(std::string_view bytes) const {
  settings_.diagnostics(bytes);
}

}  // namespace qor
