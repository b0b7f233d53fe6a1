// Downloading the update image: the trust check, the temporary image file,
// the progress dialog and its cancel button, and the failures of the
// transfer.
#include <algorithm>
#include <system_error>

#include "updater/install_preflight.h"
#include "updater/random_uuid.h"
#include "updater/transport_failure_text.h"
#include "updater/update_texts.h"
#include "updater/updater.h"
#include "updater/url_parts.h"

namespace qor {
namespace {

namespace texts = updateTexts;

std::string wholeMegabytes(std::uintmax_t bytes, bool roundUp) {
  constexpr std::uintmax_t megabyte = 1u << 20;
  return std::to_string(bytes / megabyte + (roundUp && bytes % megabyte ? 1 : 0));
}

void removeQuietly(const std::filesystem::path& file) {
  std::error_code ignored;  // best effort: a temporary file may already be gone
  std::filesystem::remove(file, ignored);
}

}  // namespace

// Only the manifest's address is checked; redirects are then followed over
// https, and the digest check is what finally protects the image.
void Updater::beginDownload() {
  const auto address = asset_ ? UrlParts::parse(asset_->url) : std::nullopt;
  if (!address) {
    showInfo(texts::cannotUpdateTitle, texts::invalidAddress);
    return;
  }
  if (address->scheme != "https" || address->host != expectedHost_) {
    showInfo(texts::blockedTitle, texts::untrustedAddress + address->host.value_or(texts::noHost));
    return;
  }
  // Nothing is downloaded that could not be installed. The package
  // installer, not this user, writes the package's files.
  const auto preflight =
      assetIsPackage_
          ? InstallPreflight{}
          : checkInstallPreflight(
                settings_.bundleRoot,
                static_cast<std::uintmax_t>(std::max<std::int64_t>(asset_->size.value_or(0), 0)));
  if (preflight.outcome == InstallPreflight::Outcome::notReplaceable) {
    showPackageManaged();
    return;
  }
  if (preflight.outcome == InstallPreflight::Outcome::lowSpace) {
    showInfo(texts::failedTitle,
             texts::lowSpaceBefore + wholeMegabytes(preflight.neededBytes, true) +
                 texts::lowSpaceBetween + settings_.bundleRoot.parent_path().string() +
                 texts::lowSpaceAvailable + wholeMegabytes(preflight.availableBytes, false) +
                 texts::lowSpaceAfter);
    return;
  }

  // The package installer takes a local file by its ".deb".
  downloadTarget_ = settings_.temporaryDirectory /
                    ("qor-update-" + randomUUID() + (assetIsPackage_ ? ".deb" : ".tar.gz"));
  progressShown_ = true;
  progressDeterminate_ = false;
  dialogs_->showProgress(
      {.title = texts::downloadingTitle + (manifest_ ? manifest_->version : std::string()),
       .text = texts::downloadingText,
       .cancelButton = texts::cancelButton},
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->cancelDownload();
      });

  const unsigned generation = ++downloadGeneration_;
  const auto weak = weak_from_this();
  downloadTask_ = HttpsDownload::start(
      asset_->url, settings_.temporaryDirectory, transferOptions_,
      [weak, generation](std::int64_t written, std::int64_t expected) {
        if (expected < 1) return;  // no length: the bar stays indeterminate
        if (const auto self = weak.lock()) {
          self->onMain([generation, written, expected](Updater& updater) {
            updater.showDownloadProgress(generation, written, expected);
          });
        }
      },
      [weak, generation](Result<std::filesystem::path> file) {
        const auto self = weak.lock();
        if (!self) {
          if (file) removeQuietly(*file);
          return;
        }
        self->onMain([generation, file = std::move(file)](Updater& updater) mutable {
          updater.downloadEnded(generation, std::move(file));
        });
      });
}

// UI thread: the user pressed "取消"; the dialog is already gone.
void Updater::cancelDownload() {
  progressShown_ = false;
  if (downloadTask_) downloadTask_->cancel();
}

void Updater::showDownloadProgress(unsigned generation, std::int64_t written,
                                   std::int64_t expected) {
  if (generation != downloadGeneration_ || !progressShown_) return;
  if (!progressDeterminate_) {
    dialogs_->setProgressMaximum(static_cast<double>(expected));
    progressDeterminate_ = true;
  }
  dialogs_->setProgressValue(static_cast<double>(written));
}

void Updater::downloadEnded(unsigned generation, Result<std::filesystem::path> file) {
  if (generation != downloadGeneration_) {
    // A later download has taken over the dialog and the target.
    if (file) removeQuietly(*file);
    return;
  }
  closeProgress();
  const bool cancelled = downloadTask_ && downloadTask_->cancelled();
  if (!file || cancelled) {
    // The user may press "取消" just after the last byte: that counts too.
    if (file) removeQuietly(*file);
    cleanupDmg();
    if (!cancelled && !HttpsDownload::isCancellation(file.error())) {
      showInfo(texts::failedTitle, transportFailureText(file.error()));
    }
    return;
  }
  if (downloadTarget_) {
    removeQuietly(*downloadTarget_);
    std::error_code moveError;
    std::filesystem::rename(*file, *downloadTarget_, moveError);
    if (moveError) {
      removeQuietly(*file);
      showInfo(texts::failedTitle, texts::saveFailed + moveError.message());
      return;
    }
  } else {
    removeQuietly(*file);
  }
  if (assetIsPackage_) {
    installPackage();
  } else {
    proceedInstall();
  }
}

void Updater::closeProgress() {
  if (!progressShown_) return;
  progressShown_ = false;
  dialogs_->closeProgress();
}

}  // namespace qor
