// Verifying the downloaded image and handing over to the install script:
// SHA-256 and size against the manifest, extraction into a private staging
// folder, the script, its detached start and the application's exit. The
// installed bundle is only ever touched by the script, after the exit.
#include <stdlib.h>
#include <unistd.h>

#include <system_error>
#include <thread>

#include "base/child_process.h"
#include "base/files.h"
#include "base/text.h"
#include "base/user_data.h"
#include "updater/file_digest.h"
#include "updater/install_script.h"
#include "updater/random_uuid.h"
#include "updater/update_texts.h"
#include "updater/updater.h"

namespace qor {

namespace texts = updateTexts;

// What the background step found: a staging folder holding the extracted
// image, or the dialog that reports why there is none.
struct Updater::InstallPreparation {
  std::filesystem::path image;
  std::optional<std::filesystem::path> staging;
  std::string failureTitle;
  std::string failureText;
};

namespace {

constexpr ScaledClock::Seconds terminationDelay{0.6};
constexpr size_t quotedDigestLength = 16;

std::string asciiLowercased(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// The first `count` characters (code points) of UTF-8 text.
std::string firstCharacters(const std::string& text, size_t count) {
  size_t end = 0;
  for (size_t seen = 0; end < text.size(); ++end) {
    const bool startsCharacter = (static_cast<unsigned char>(text[end]) & 0xC0) != 0x80;
    if (startsCharacter && seen++ == count) break;
  }
  return text.substr(0, end);
}

}  // namespace

// UI thread. Hashing and extraction take a while for a large image, so they
// run on a thread of their own and the window keeps answering.
void Updater::proceedInstall() {
  if (!downloadTarget_ || !asset_) return;
  std::thread([weak = weak_from_this(), image = *downloadTarget_, asset = *asset_,
               folder = settings_.temporaryDirectory] {
    auto preparation = prepareInstall(image, asset, folder);
    const auto self = weak.lock();
    if (!self) {
      if (preparation.staging) detach(*preparation.staging);
      return;
    }
    self->onMain([preparation = std::move(preparation)](Updater& updater) mutable {
      updater.installPrepared(std::move(preparation));
    });
  }).detach();
}

// Background thread. Digest first, then size.
std::optional<std::pair<std::string, std::string>> Updater::verifyDownload(
    const std::filesystem::path& file, const QorAsset& asset) {
  const auto digest = sha256OfFile(file);
  if (!digest) return {{texts::failedTitle, texts::unreadable + digest.error().description}};
  if (*digest != asciiLowercased(asset.sha256)) {
    return {{texts::blockedTitle,
             texts::digestMismatch + firstCharacters(asset.sha256, quotedDigestLength) +
                 texts::digestActual + digest->substr(0, quotedDigestLength) + texts::ellipsis}};
  }
  if (asset.size) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(file, ec);
    // A size that cannot be read is not checked.
    if (!ec && static_cast<std::int64_t>(size) != *asset.size) {
      return {{texts::blockedTitle, texts::sizeMismatchBefore + std::to_string(size) +
                                        texts::sizeMismatchBetween + std::to_string(*asset.size) +
                                        texts::sizeMismatchAfter}};
    }
  }
  return std::nullopt;
}

// Background thread. The download's checks, then extraction.
Updater::InstallPreparation Updater::prepareInstall(
    const std::filesystem::path& image, const QorAsset& asset,
    const std::filesystem::path& temporaryDirectory) {
  InstallPreparation preparation{.image = image};
  const auto fail = [&preparation](std::string title, std::string text) {
    preparation.failureTitle = std::move(title);
    preparation.failureText = std::move(text);
    return preparation;
  };
  if (auto failure = verifyDownload(image, asset)) {
    return fail(std::move(failure->first), std::move(failure->second));
  }

  // A private folder (mode 0700) that nobody else can have prepared.
  std::string staging = (temporaryDirectory / "qor-staging-XXXXXX").string();
  if (!mkdtemp(staging.data())) return fail(texts::failedTitle, texts::cannotMount);
  const auto extracted = ChildProcess::run({
      .executable = "/usr/bin/tar",
      .arguments = {"-xzf", image.string(), "-C", staging},
      .output = OutputMode::discard,
  });
  if (!extracted || *extracted != 0) {
    detach(staging);
    return fail(texts::failedTitle, texts::cannotMount);
  }
  preparation.staging = staging;
  return preparation;
}

// UI thread. Failures clean up before their dialog shows, so nothing is
// left behind however long the dialog stays open.
void Updater::installPrepared(InstallPreparation preparation) {
  if (!preparation.staging) {
    cleanupDmg();
    showInfo(preparation.failureTitle, preparation.failureText);
    return;
  }
  const auto staging = *preparation.staging;
  const auto newBundle = staging / appNameInDmg;
  std::error_code ec;
  if (!std::filesystem::exists(newBundle, ec)) {
    detach(staging);
    cleanupDmg();
    showInfo(texts::failedTitle,
             std::string(texts::bundleMissingBefore) + appNameInDmg + texts::bundleMissingAfter);
    return;
  }
  const pid_t pid = settings_.processToAwait != 0 ? settings_.processToAwait : getpid();
  const auto script =
      writeInstallHelper(pid, newBundle, settings_.bundleRoot, staging, preparation.image);
  if (!script) {
    detach(staging);
    cleanupDmg();
    showInfo(texts::failedTitle, texts::scriptFailed);
    return;
  }
  offerRestart(*script, texts::readyTitle);
}

// UI thread. Whatever way the alert ends, the update goes on: the script
// starts, and the application quits.
void Updater::offerRestart(const std::filesystem::path& script, const char* titleBefore) {
  dialogs_->showAlert(
      {.title = titleBefore +
                (manifest_ ? manifest_->version : std::string(texts::readyTitleWithoutManifest)),
       .text = texts::readyText,
       .style = UpdateAlertStyle::informational,
       .buttons = {texts::restartButton}},
      [weak = weak_from_this(), script](std::optional<std::size_t>) {
        if (const auto self = weak.lock()) {
          self->launchDetached(script);
          self->scheduleTermination();
        }
      });
}

std::filesystem::path Updater::updateLog() const {
  return settings_.supportDirectory / productFolderName / "update.log";
}

std::filesystem::path Updater::failureMark() const {
  return settings_.supportDirectory / productFolderName / "update-failed";
}

std::filesystem::path Updater::noticeMark() const {
  return settings_.supportDirectory / productFolderName / "update-notice";
}

std::optional<std::filesystem::path> Updater::writeInstallHelper(
    pid_t pid, const std::filesystem::path& srcApp, const std::filesystem::path& dstApp,
    const std::filesystem::path& mount, const std::filesystem::path& dmg) {
  std::error_code ignored;  // best effort: without the folder the script just logs nothing
  std::filesystem::create_directories(updateLog().parent_path(), ignored);
  const InstallScript script{
      .processId = pid,
      .newBundle = srcApp,
      .destination = dstApp,
      .staging = mount,
      .image = dmg,
      .log = updateLog(),
      .version = manifest_ ? manifest_->version : std::string(),
      // The installed bundle's own: this version wrote the script and knows it ships one.
      .exchangeTool = settings_.bundleRoot / "lib" / "qor-velmora" / "qor-exchange",
      .failureMark = failureMark(),
  };
  return writeHelperScript(script.text());
}

// A script for launchDetached() in the temporary folder.
std::optional<std::filesystem::path> Updater::writeHelperScript(const std::string& text) const {
  const auto file = settings_.temporaryDirectory / ("qor-install-" + randomUUID() + ".sh");
  if (!writeFileAtomically(file, text)) return std::nullopt;
  // Best effort: the script is started through bash, which needs no x bit.
  std::error_code ignored;
  std::filesystem::permissions(file, std::filesystem::perms(0755),
                               std::filesystem::perm_options::replace, ignored);
  return file;
}

// UI thread, at start. The install script leaves the version it could not
// install in the failure mark; that is told once, and the version is not
// offered again by the automatic check of this run.
void Updater::reportFailedInstall() {
  const auto mark = failureMark();
  auto version = readTextFile(mark);
  if (!version) return;
  std::error_code ignored;  // best effort: a mark that stays is told again next start
  std::filesystem::remove(mark, ignored);
  failedVersion_ = trimmed(*version);
  showInfo(texts::failedTitle, texts::installFailedBefore + *failedVersion_ +
                                   texts::installFailedKept + currentVersion() +
                                   texts::installFailedLog + updateLog().string() +
                                   texts::installFailedAfter);
}

// The script gets a session of its own and is not tied to this process, so
// it lives on after the application has quit. A failed start is not
// reported: the application quits all the same.
void Updater::launchDetached(const std::filesystem::path& script) {
  [[maybe_unused]] const auto started = ChildProcess::launch({
      .executable = "/bin/bash",
      .arguments = {script.string()},
      .workingDirectory = "/",
      .output = OutputMode::discard,
      .terminateWithParent = false,
      .detached = true,
  });
}

void Updater::scheduleTermination() {
  std::thread([weak = weak_from_this(), clock = clock_] {
    clock.sleepFor(terminationDelay);
    if (const auto self = weak.lock()) {
      self->onMain([](Updater& updater) {
        if (updater.terminateApplication) updater.terminateApplication();
      });
    }
  }).detach();
}

// The staging folder stands for the mounted image: removing it is the detach.
void Updater::detach(const std::filesystem::path& mount) {
  std::error_code ignored;  // best effort, quietly
  std::filesystem::remove_all(mount, ignored);
}

void Updater::cleanupDmg() {
  if (downloadTarget_) {
    std::error_code ignored;  // best effort: the file may never have been written
    std::filesystem::remove(*downloadTarget_, ignored);
  }
  downloadTarget_.reset();
}

}  // namespace qor
