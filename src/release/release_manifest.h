// Publishing a release: the update manifest ("latest.json") that announces a
// set of built update images, checked against the images themselves so that
// what the updater downloads is what the manifest promises.
//
// An image is named QOR-Velmora-<version>-<platform key>.tar.gz and is a
// gzip-compressed tar whose top-level entry is the bundle folder
// "QOR Velmora"; the version inside is the trimmed text of
// "QOR Velmora/share/qor-velmora/APP_VERSION".
//
// Beside the images, the Debian packages (qor-velmora_<version>_<architecture>.deb,
// architectures amd64 and arm64) are announced under the platform keys
// "linux-x64-deb" and "linux-arm64-deb", for installations the system's
// package manager owns; the version is the one in the package's control file.
//
// Threads: the calling thread only; blocks while it reads the images.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "updater/qor_manifest.h"

namespace qor {

struct ReleaseRequest {
  std::string version;                        // the release's version, such as "1.1.0"
  std::string baseUrl;                        // https address of the folder holding the images
  std::optional<std::string> notes;           // shown in the update dialog
  std::optional<std::string> minVersion;      // running versions below it must update
  std::vector<std::filesystem::path> images;  // images and packages, one per platform key
};

inline constexpr const char* releaseErrorDomain = "QOR.release";

enum ReleaseErrorCode {
  releaseBadArgument = 1,  // a version, address or notes text that cannot be published
  releaseBadImage = 2,     // an image that is missing, misnamed or not an update image
  releaseMismatch = 3,     // the images disagree with the request or with each other
};

// Checks the request and every image, then writes the manifest to `output`
// in one step. Fails on the first inconsistency with a one-line description
// naming the image; `output` is then neither created nor changed.
Result<QorManifest> writeReleaseManifest(const ReleaseRequest& request,
                                         const std::filesystem::path& output);

}  // namespace qor
