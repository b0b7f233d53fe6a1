// qor-release: writes the update manifest (latest.json) that announces a
// release's update images, with its signature, and makes signing keys. A
// developer's tool; it is not part of the bundle.
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/files.h"
#include "base/text.h"
#include "release/release_manifest.h"
#include "release/signing_key.h"

namespace {

constexpr const char* usage =
    R"(Usage: qor-release --version VERSION --base-url URL [--notes TEXT | --notes-file FILE]
                   [--min-version VERSION] [--output FILE] [--signing-key FILE] IMAGE...
       qor-release keygen --private-key FILE --public-key FILE

Writes the update manifest announcing the update images IMAGE..., one per
platform, each named QOR-Velmora-<version>-<platform key>.tar.gz (platform keys
linux-x64 and linux-arm64). Debian packages named
qor-velmora_<version>_<architecture>.deb (amd64, arm64) may be given beside
them; they are announced under linux-x64-deb and linux-arm64-deb for
installations the system's package manager owns. Nothing is written when any
input is inconsistent.

  --version VERSION      the release's version, such as 1.1.0; each image's name
                         and its share/qor-velmora/APP_VERSION (a package's name
                         and its control file) must say the same
  --base-url URL         the https address of the folder the images are published
                         in, on the update host the application was built for
  --notes TEXT           release notes for the update dialog
  --notes-file FILE      the same, read from a UTF-8 file
  --min-version VERSION  running versions below it must take the update
  --output FILE          the manifest to write (default: latest.json)
  --signing-key FILE     also write the manifest's signature (the output's name
                         with .sig) with the private key FILE, as keygen makes it;
                         updaters refuse manifests without one

keygen writes a new signing key pair: the private key (readable by its owner
only) and the public key, the text QOR_UPDATE_PUBLIC_KEYS takes. It never
replaces an existing file.

Exit status: 0 written, 1 refused, 2 bad command line.
)";

constexpr int exitRefused = 1;
constexpr int exitUsage = 2;

struct Options {
  std::optional<std::string> version, baseUrl, notes, notesFile, minVersion, output, signingKey;
  std::vector<std::string> images;
  bool help = false;
};

qor::Error usageError(std::string description) {
  return qor::Error{"qor-release", exitUsage, std::move(description)};
}

qor::Result<Options> parseArguments(const std::vector<std::string>& arguments) {
  const std::map<std::string, std::optional<std::string> Options::*> valued = {
      {"--version", &Options::version},
      {"--base-url", &Options::baseUrl},
      {"--notes", &Options::notes},
      {"--notes-file", &Options::notesFile},
      {"--min-version", &Options::minVersion},
      {"--output", &Options::output},
      {"--signing-key", &Options::signingKey}};
  Options options;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--help" || argument == "-h") {
      options.help = true;
    } else if (!argument.starts_with("-")) {
      options.images.push_back(argument);
    } else if (const auto option = valued.find(argument); option == valued.end()) {
      return usageError("unknown option " + argument);
    } else if (i + 1 == arguments.size()) {
      return usageError(argument + " needs a value");
    } else if (auto& value = options.*(option->second); value) {
      return usageError(argument + " is given twice");
    } else {
      value = arguments[++i];
    }
  }
  if (options.help) return options;
  if (!options.version) return usageError("--version is required");
  if (!options.baseUrl) return usageError("--base-url is required");
  if (options.notes && options.notesFile)
    return usageError("give --notes or --notes-file, not both");
  if (options.images.empty()) return usageError("no image given");
  return options;
}

int refuse(const std::string& description, int status) {
  std::cerr << "qor-release: " << description << "\n";
  return status;
}

int keygen(const std::vector<std::string>& arguments) {
  std::map<std::string, std::string> files;  // option -> file, either order
  for (size_t i = 0; i + 1 < arguments.size(); i += 2) files[arguments[i]] = arguments[i + 1];
  const auto privateKey = files.find("--private-key"), publicKey = files.find("--public-key");
  if (arguments.size() != 4 || files.size() != 2 || privateKey == files.end() ||
      publicKey == files.end()) {
    return refuse("keygen takes --private-key FILE --public-key FILE (see qor-release --help)",
                  exitUsage);
  }
  const auto key = qor::SigningKey::generate();
  if (!key) return refuse(key.error().description, exitRefused);
  if (const auto saved = key->save(privateKey->second, publicKey->second); !saved) {
    return refuse(saved.error().description, exitRefused);
  }
  std::cout << "Wrote the private key " << privateKey->second
            << " (keep it secret) and the public key " << publicKey->second << ":\n  "
            << key->publicKey() << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && argv[1] == std::string_view("keygen")) return keygen({argv + 2, argv + argc});
  const auto options = parseArguments({argv + 1, argv + argc});
  if (!options) {
    return refuse(options.error().description + " (see qor-release --help)", exitUsage);
  }
  if (options->help) {
    std::cout << usage;
    return 0;
  }
  qor::ReleaseRequest request{*options->version,
                              *options->baseUrl,
                              options->notes,
                              options->minVersion,
                              {options->images.begin(), options->images.end()}};
  if (options->notesFile) {
    const auto text = qor::readTextFile(*options->notesFile);
    if (!text) return refuse("cannot read the notes file " + *options->notesFile, exitRefused);
    request.notes = qor::trimmed(*text);
  }
  const std::filesystem::path output = options->output.value_or("latest.json");
  std::optional<qor::SigningKey> signingKey;
  if (options->signingKey) {
    auto key = qor::SigningKey::load(*options->signingKey);
    if (!key) return refuse(key.error().description, exitRefused);
    signingKey = std::move(key).value();
  }
  const auto manifest = signingKey ? qor::writeSignedReleaseManifest(request, output, *signingKey)
                                   : qor::writeReleaseManifest(request, output);
  if (!manifest) return refuse(manifest.error().description, exitRefused);
  std::cout << "Wrote " << output.string() << (signingKey ? " and its signature" : "")
            << " for version " << manifest->version << ":\n";
  for (const auto& [key, asset] : manifest->platforms) {
    std::cout << "  " << key << "  " << asset.url << "  " << *asset.size << " bytes\n";
  }
  return 0;
}
