#include "release/release_manifest.h"

#include <algorithm>
#include <optional>
#include <regex>
#include <system_error>

#include "base/child_process.h"
#include "base/files.h"
#include "base/text.h"
#include "updater/file_digest.h"
#include "updater/url_parts.h"
#include "updater/version_rules.h"

namespace qor {
namespace {

constexpr const char* tar = "/usr/bin/tar";
constexpr const char* dpkgDeb = "/usr/bin/dpkg-deb";
constexpr const char* versionEntry = "QOR Velmora/share/qor-velmora/APP_VERSION";

Error badArgument(std::string description) {
  return Error{releaseErrorDomain, releaseBadArgument, std::move(description)};
}

Error badImage(const std::filesystem::path& image, const std::string& description) {
  return Error{releaseErrorDomain, releaseBadImage, image.string() + ": " + description};
}

Error mismatch(const std::filesystem::path& image, const std::string& description) {
  return Error{releaseErrorDomain, releaseMismatch, image.string() + ": " + description};
}

// The keys installed applications ask for, one per machine they run on.
std::vector<std::string> knownPlatformKeys() {
  std::vector<std::string> keys;
  for (const char* machine : {"x86_64", "aarch64"}) keys.push_back(*platformKeyFor(machine));
  return keys;
}

// Debian's names for those machines, as package files are named.
struct DebianArchitecture {
  const char* name;
  const char* machine;
};
constexpr DebianArchitecture debianArchitectures[] = {{"amd64", "x86_64"}, {"arm64", "aarch64"}};

bool isDebianPackage(const std::filesystem::path& file) {
  return file.extension() == ".deb";
}

Result<> checkRequest(const ReleaseRequest& request) {
  if (!isPlainVersion(request.version)) {
    return badArgument("the version \"" + request.version + "\" is not a version such as 1.1.0");
  }
  if (request.minVersion) {
    if (!isPlainVersion(*request.minVersion)) {
      return badArgument("the minimum version \"" + *request.minVersion +
                         "\" is not a version such as 1.0.0");
    }
    if (isNewer(*request.minVersion, request.version)) {
      return badArgument("the minimum version " + *request.minVersion +
                         " is above the release version " + request.version);
    }
  }
  // The image's name is appended, so a query or fragment would swallow it.
  const auto address = UrlParts::parse(request.baseUrl);
  if (!address || address->scheme != "https" || !address->host ||
      request.baseUrl.find_first_of("?#") != std::string::npos) {
    return badArgument("the base address \"" + request.baseUrl +
                       "\" is not an https:// address of a folder");
  }
  if (request.notes && !isValidUtf8(*request.notes)) {
    return badArgument("the notes are not valid UTF-8");
  }
  if (request.images.empty()) return badArgument("no image given");
  return {};
}

// A file whose name gives another version than the release's.
std::optional<Error> namedForAnotherVersion(const std::filesystem::path& file,
                                            const std::string& named, const std::string& version) {
  if (named == version) return std::nullopt;
  return mismatch(file, "named for version " + named + ", but the release is version " + version);
}

// The platform key in the image's name, once the name's version is the
// release's.
Result<std::string> platformKeyOfName(const std::filesystem::path& image,
                                      const std::string& version) {
  static const std::regex pattern(R"(QOR-Velmora-([^-]+)-(.+)\.tar\.gz)");
  const std::string name = image.filename().string();
  std::smatch parts;
  if (!std::regex_match(name, parts, pattern)) {
    return badImage(image, "the name must be QOR-Velmora-<version>-<platform key>.tar.gz");
  }
  const std::string named = parts[1], key = parts[2];
  const auto keys = knownPlatformKeys();
  if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
    std::string known;
    for (const auto& each : keys) known += (known.empty() ? "" : ", ") + each;
    return badImage(image, "unknown platform key \"" + key + "\" (known: " + known + ")");
  }
  if (auto other = namedForAnotherVersion(image, named, version)) return *other;
  return key;
}

// The platform key for the package's name, once the name's version is the
// release's.
Result<std::string> packageKeyOfName(const std::filesystem::path& package,
                                     const std::string& version) {
  static const std::regex pattern(R"(qor-velmora_([^_]+)_([^_]+)\.deb)");
  const std::string name = package.filename().string();
  std::smatch parts;
  if (!std::regex_match(name, parts, pattern)) {
    return badImage(package, "the name must be qor-velmora_<version>_<architecture>.deb");
  }
  const std::string named = parts[1], architecture = parts[2];
  const auto known = std::find_if(
      std::begin(debianArchitectures), std::end(debianArchitectures),
      [&architecture](const DebianArchitecture& each) { return each.name == architecture; });
  if (known == std::end(debianArchitectures)) {
    return badImage(package, "unknown architecture \"" + architecture + "\" (known: amd64, arm64)");
  }
  if (auto other = namedForAnotherVersion(package, named, version)) return *other;
  return debianPackageKey(*platformKeyFor(known->machine));
}

// The version the package installs, from its control file; it must be the
// application's own package.
Result<std::string> versionOfPackage(const std::filesystem::path& package) {
  const auto read = ChildProcess::runCapturingOutput(
      {.executable = dpkgDeb, .arguments = {"--field", package.string(), "Package", "Version"}});
  if (!read) return read.error();
  if (read->status != 0) return badImage(package, "not a Debian package");
  static const std::regex fields(R"(Package: (.*)\nVersion: (.*)\n?)");
  std::smatch parts;
  if (!std::regex_match(read->output, parts, fields) || parts[1] != "qor-velmora") {
    return badImage(package, "not the qor-velmora package");
  }
  return trimmed(parts[2].str());
}

// The version the image's application reports once installed, read without
// unpacking the image.
Result<std::string> versionInside(const std::filesystem::path& image) {
  const auto listed = ChildProcess::run(
      {.executable = tar, .arguments = {"-tzf", image.string()}, .output = OutputMode::discard});
  if (!listed) return listed.error();
  if (*listed != 0) return badImage(image, "not a gzip-compressed tar archive");
  const auto read = ChildProcess::runCapturingOutput(
      {.executable = tar, .arguments = {"-xzOf", image.string(), versionEntry}});
  if (!read) return read.error();
  if (read->status != 0) {
    return badImage(image, std::string("has no \"") + versionEntry +
                               "\": its top-level entry must be the folder \"QOR Velmora\"");
  }
  return trimmed(read->output);
}

Result<QorAsset> assetOf(const std::filesystem::path& image, const ReleaseRequest& request) {
  const auto digest = sha256OfFile(image);
  if (!digest) return Error{releaseErrorDomain, releaseBadImage, digest.error().description};
  std::error_code ec;
  const auto size = std::filesystem::file_size(image, ec);
  if (ec) return systemError(ec, "cannot read the size of " + image.string());
  const bool package = isDebianPackage(image);
  const auto version = package ? versionOfPackage(image) : versionInside(image);
  if (!version) return version.error();
  if (*version != request.version) {
    return mismatch(image, "holds version \"" + *version + "\" (" +
                               (package ? "its control file" : versionEntry) +
                               "), but the release is version " + request.version);
  }
  std::string url = request.baseUrl;
  if (!url.ends_with('/')) url += '/';
  // The names the patterns admit are made of letters, digits, "-", "_" and
  // ".", which need no %-escapes.
  url += image.filename().string();
  return QorAsset{url, *digest, static_cast<std::int64_t>(size)};
}

}  // namespace

Result<QorManifest> writeReleaseManifest(const ReleaseRequest& request,
                                         const std::filesystem::path& output) {
  if (const auto checked = checkRequest(request); !checked) return checked.error();
  QorManifest manifest{request.version, request.notes, request.minVersion, {}};
  for (const auto& image : request.images) {
    const bool package = isDebianPackage(image);
    const auto key = package ? packageKeyOfName(image, request.version)
                             : platformKeyOfName(image, request.version);
    if (!key) return key.error();
    if (manifest.platforms.contains(*key)) {
      return mismatch(image,
                      std::string("a second ") + (package ? "package" : "image") + " for " + *key);
    }
    const auto asset = assetOf(image, request);
    if (!asset) return asset.error();
    manifest.platforms.emplace(*key, *asset);
  }
  if (const auto written = writeFileAtomically(output, encodeManifest(manifest)); !written) {
    return written.error();
  }
  return manifest;
}

}  // namespace qor
