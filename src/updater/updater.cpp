// The updater object and the check flow: the manifest request, every outcome
// of a check and the dialogs that report them.
#include "updater/updater.h"

#include <cstdio>
#include <thread>

#include "base/bundle.h"
#include "base/files.h"
#include "base/text.h"
#include "base/user_data.h"
#include "updater/install_preflight.h"
#include "updater/transport_failure_text.h"
#include "updater/update_texts.h"
#include "updater/url_parts.h"

namespace qor {
namespace {

namespace texts = updateTexts;

constexpr ScaledClock::Seconds automaticCheckDelay{3.0};

std::filesystem::path systemTemporaryDirectory() {
  std::error_code ec;
  auto folder = std::filesystem::temp_directory_path(ec);
  return ec ? std::filesystem::path("/tmp") : folder;
}

Updater::Settings withDefaults(Updater::Settings settings) {
  if (settings.temporaryDirectory.empty()) settings.temporaryDirectory = systemTemporaryDirectory();
  if (settings.bundleRoot.empty()) settings.bundleRoot = bundleRoot();
  if (settings.supportDirectory.empty()) settings.supportDirectory = userDataDirectory();
  if (!settings.diagnostics) {
    settings.diagnostics = [](const std::string& line) {
      std::fputs(("[updater] " + line + "\n").c_str(), stderr);
    };
  }
  return settings;
}

// The host that images must come from: the configured one without its port.
std::string hostOf(const std::string& url) {
  const auto parts = UrlParts::parse(url);
  return parts && parts->host ? *parts->host : std::string();
}

}  // namespace

Updater::Updater(std::shared_ptr<MainThreadQueue> mainThread,
                 std::shared_ptr<UpdaterDialogs> dialogs)
    : Updater(std::move(mainThread), std::move(dialogs), Settings{}) {}

Updater::Updater(std::shared_ptr<MainThreadQueue> mainThread,
                 std::shared_ptr<UpdaterDialogs> dialogs, Settings settings)
    : mainThread_(std::move(mainThread)),
      dialogs_(std::move(dialogs)),
      settings_(withDefaults(std::move(settings))),
      clock_(settings_.clockSpeed),
      transferOptions_{.idleTimeout = settings_.idleTimeout,
                       .totalTimeout = settings_.totalTimeout,
                       .extraCAFile = settings_.extraCAFile},
      manifestURL_("https://" + settings_.host + manifestPath),
      expectedHost_(hostOf(manifestURL_)) {}

std::string Updater::currentVersion() const {
  return qor::currentVersion(settings_.bundleRoot);
}

std::optional<std::string> Updater::platformKey() const {
  if (!settings_.machineName.empty()) return platformKeyFor(settings_.machineName);
  return qor::platformKey();
}

void Updater::scheduleAutomaticCheck() {
  if (!updatesConfigured()) return;
  reportFailedInstall();
  std::thread([weak = weak_from_this(), clock = clock_] {
    clock.sleepFor(automaticCheckDelay);
    if (const auto self = weak.lock()) self->check(true);
  }).detach();
}

void Updater::checkForUpdates() {
  check(false);
}

// Checks are not serialised: a check started while another is in flight
// simply runs beside it.
void Updater::check(bool silent) {
  if (!updatesConfigured()) return;
  silent_ = silent;
  std::thread([weak = weak_from_this(), silent, url = manifestURL_, options = transferOptions_] {
    const auto response = httpsGet(url, options);
    // Only a manifest that came needs its signature; an unanswered request
    // for it leaves the signature missing.
    HttpResponse signature;
    if (response && response->status == 200) {
      if (auto fetched = httpsGet(url + manifestSignatureSuffix, options)) {
        signature = std::move(fetched).value();
      }
    }
    if (const auto self = weak.lock()) self->completeCheck(silent, response, signature);
  }).detach();
}

// On the request's thread. Decides with the `silent` of its own check.
void Updater::completeCheck(bool silent, const Result<HttpResponse>& response,
                            const HttpResponse& signature) {
  const auto report = [this, silent](std::string text) {
    if (silent) {
      settings_.diagnostics(std::string(texts::checkFailedTitle) + ": " + text);
      return;
    }
    onMain(
        [text = std::move(text)](Updater& self) { self.showInfo(texts::checkFailedTitle, text); });
  };
  if (!response) {
    report(isEmptyReply(response.error()) ? texts::noResponse
                                          : transportFailureText(response.error()));
    return;
  }
  if (response->status == 0) {
    report(texts::noResponse);
    return;
  }
  if (response->status != 200 || response->body.empty()) {
    report(texts::unavailableBefore + std::to_string(response->status) + texts::unavailableAfter);
    return;
  }
  const auto verified = verifyManifestSignature(
      response->body, signature.status == 200 ? signature.body : std::string(),
      settings_.trustedKeys);
  if (!verified) {
    settings_.diagnostics("update blocked: " + verified.error().description);
    if (!silent) {
      onMain([](Updater& self) { self.showInfo(texts::blockedTitle, texts::unsignedManifest); });
    }
    return;
  }
  auto manifest = decodeManifest(response->body);
  if (!manifest) {
    report(texts::undecodableBefore + manifest.error().description);
    return;
  }
  onMain([manifest = std::move(manifest).value()](Updater& self) mutable {
    self.applyManifest(std::move(manifest));
  });
}

// UI thread. Reads the flag of the most recently started check, which may
// belong to another check than the one that fetched this manifest.
void Updater::applyManifest(QorManifest manifest) {
  manifest_ = std::move(manifest);
  const auto key = platformKey();
  const auto& platforms = manifest_->platforms;
  const bool inPlace = canReplaceBundle(settings_.bundleRoot);
  // A bundle that cannot be replaced in place takes the machine's Debian
  // package when the release has one.
  auto entry = key && !inPlace ? platforms.find(debianPackageKey(*key)) : platforms.end();
  const bool package = entry != platforms.end();
  if (!package && key) entry = platforms.find(*key);
  if (entry == platforms.end()) {
    if (!silent_) {
      showInfo(texts::cannotUpdateTitle,
               texts::noAssetBefore + key.value_or(texts::unknownPlatform) + texts::noAssetAfter);
    }
    return;
  }
  asset_ = entry->second;
  assetIsPackage_ = package;
  const auto current = currentVersion();
  if (!isNewer(manifest_->version, current)) {
    if (!silent_) {
      showInfo(texts::upToDateTitle, texts::upToDateBefore + current + texts::upToDateAfter);
    }
    return;
  }
  if (silent_ && manifest_->version == failedVersion_) {
    settings_.diagnostics("not offering " + manifest_->version + " again: its install failed");
    return;
  }
  if (!inPlace && !package) {
    // Nothing here for the user to do: told once per version, not at every start.
    const auto told = readTextFile(noticeMark());
    if (silent_ && told && trimmed(*told) == manifest_->version) {
      settings_.diagnostics(manifest_->version +
                            " is left to the system's package manager, as told before");
      return;
    }
    showPackageManaged();
    return;
  }
  const bool forced = isForcedUpdate(manifest_->minVersion, current);
  const auto& notes = manifest_->notes;
  UpdateAlert alert{
      .title = (forced ? texts::forcedVersionTitle : texts::newVersionTitle) + manifest_->version,
      .text = texts::runningVersion + current + "\n" +
              (notes && !notes->empty() ? *notes : texts::defaultNotes),
      .style = forced ? UpdateAlertStyle::critical : UpdateAlertStyle::informational,
      .buttons = {texts::updateNowButton},
  };
  if (!forced) alert.buttons.push_back(texts::laterButton);
  dialogs_->showAlert(alert, [weak = weak_from_this()](std::optional<std::size_t> button) {
    const auto self = weak.lock();
    if (self && button == 0) self->beginDownload();
  });
}

// UI thread. The offer for a bundle this user cannot replace in place.
void Updater::showPackageManaged() {
  // Best effort: without the mark the next start tells again.
  if (makePrivateFolder(noticeMark().parent_path())) {
    (void)writeFileAtomically(noticeMark(), manifest_->version + "\n");
  }
  showInfo(texts::newVersionTitle + manifest_->version,
           texts::runningVersion + currentVersion() + "\n" + texts::packageManagedBefore +
               manifest_->version + texts::packageManagedAfter);
}

// Every outcome a dialog reports also goes to the diagnostics, where it can
// still be read after the dialog is gone.
void Updater::showInfo(const std::string& title, const std::string& text) {
  settings_.diagnostics(title + ": " + text);
  dialogs_->showAlert({.title = title,
                       .text = text,
                       .style = UpdateAlertStyle::informational,
                       .buttons = {texts::okButton}},
                      [](std::optional<std::size_t>) {});
}

// Always posts, even from the UI thread, and never waits.
void Updater::onMain(std::function<void(Updater&)> work) {
  mainThread_->post([weak = weak_from_this(), work = std::move(work)] {
    if (const auto self = weak.lock()) work(*self);
  });
}

}  // namespace qor
