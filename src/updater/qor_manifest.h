// The update manifest ("latest.json" on the update server), the records it
// decodes into and its encoding for publishing. Decoding is strict about
// types and lenient about unknown keys; of the values only the version is
// checked here, which must be a plain dotted one (an empty url or a short
// sha256 fail later, in their own steps).
//
// Threads: plain values and a pure function; any thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"

namespace qor {

// The download of one platform.
struct QorAsset {
  std::string url;                   // "url"
  std::string sha256;                // "sha256": hexadecimal, either case
  std::optional<std::int64_t> size;  // "size": bytes of the image

  bool operator==(const QorAsset&) const = default;
};

struct QorManifest {
  std::string version;                        // "version"
  std::optional<std::string> notes;           // "notes"
  std::optional<std::string> minVersion;      // "min_version"
  std::map<std::string, QorAsset> platforms;  // "platforms", keyed by platform key

  bool operator==(const QorManifest&) const = default;
};

inline constexpr const char* manifestErrorDomain = "QOR.manifest";

enum ManifestErrorCode {
  manifestNotJSON = 1,     // the text is not a JSON document
  manifestMissingKey = 2,  // a required key is absent
  manifestWrongType = 3,   // a value has the wrong JSON type or does not fit
};

// Decodes the whole document; any malformed part, for whichever platform,
// fails it with a description naming the place ("platforms.linux-x64.size").
Result<QorManifest> decodeManifest(std::string_view json);

// The document decodeManifest reads back as `manifest`: keys in field order,
// absent optionals left out, indented, ending in a line break. Every text
// must be valid UTF-8.
std::string encodeManifest(const QorManifest& manifest);

}  // namespace qor
