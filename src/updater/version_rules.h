// The updater's rules about versions and machines: how two application
// versions are ordered, when an update is forced, which download fits this
// machine and which version is running.
//
// Threads: any thread; nothing here keeps state.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace qor {

// Whether `candidate` is a later version than `reference`. Both are split at
// "." (empty pieces dropped); each piece is a signed 64-bit decimal number
// with an optional sign, anything else counting as 0; missing pieces count
// as 0; the first differing piece decides. So "1.2" equals "1.2.0", "1.10"
// is newer than "1.9", and "2.0.0-rc1" equals "2.0.0".
bool isNewer(std::string_view candidate, std::string_view reference);

// Whether `text` is a plain dotted version such as "1.10.2", the only kind a
// release carries: pieces of 1 to 18 decimal digits joined by single dots,
// with no sign, blank, suffix or other character.
bool isPlainVersion(std::string_view text);

// Whether an update that has been found newer must be taken: the running
// version is strictly below `minVersion`.
bool isForcedUpdate(const std::optional<std::string>& minVersion, std::string_view currentVersion);

// The manifest's key for a machine hardware name (uname's "machine"):
// "linux-x64" for x86_64, "linux-arm64" for aarch64, none for anything else.
std::optional<std::string> platformKeyFor(std::string_view machine);

// The key of the machine this runs on, read afresh on every call.
std::optional<std::string> platformKey();

// The manifest's key for the Debian package of the machine whose image key
// is `platformKey`: "linux-x64-deb" for "linux-x64".
std::string debianPackageKey(std::string_view platformKey);

// The running application's version: the trimmed text of
// share/qor-velmora/APP_VERSION in the bundle; "0.0.0" when it is missing
// or empty.
std::string currentVersion(const std::filesystem::path& bundleRoot);

}  // namespace qor
