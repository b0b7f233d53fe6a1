#include "updater/version_rules.h"

#include <sys/utsname.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <vector>

#include "base/files.h"
#include "base/text.h"

namespace qor {
namespace {

constexpr const char* unknownVersion = "0.0.0";

// Strict base 10: one optional sign, then digits only, within 64 bits.
std::int64_t pieceValue(std::string_view piece) {
  std::string_view digits = piece;
  if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) digits.remove_prefix(1);
  if (digits.empty() ||
      !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return 0;
  }
  // from_chars takes a "-" but no "+".
  const std::string_view number = piece.front() == '+' ? digits : piece;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  if (error != std::errc() || end != number.data() + number.size()) return 0;
  return value;
}

std::vector<std::int64_t> versionPieces(std::string_view version) {
  std::vector<std::int64_t> pieces;
  size_t start = 0;
  while (start <= version.size()) {
    const size_t dot = std::min(version.find('.', start), version.size());
    if (dot > start) pieces.push_back(pieceValue(version.substr(start, dot - start)));
    start = dot + 1;
  }
  return pieces;
}

}  // namespace

bool isNewer(std::string_view candidate, std::string_view reference) {
  const auto candidatePieces = versionPieces(candidate);
  const auto referencePieces = versionPieces(reference);
  const size_t count = std::max(candidatePieces.size(), referencePieces.size());
  for (size_t i = 0; i < count; ++i) {
    const std::int64_t mine = i < candidatePieces.size() ? candidatePieces[i] : 0;
    const std::int64_t theirs = i < referencePieces.size() ? referencePieces[i] : 0;
    if (mine != theirs) return mine > theirs;
  }
  return false;
}

bool isPlainVersion(std::string_view text) {
  size_t start = 0;
  for (;;) {
    const size_t dot = std::min(text.find('.', start), text.size());
    const auto piece = text.substr(start, dot - start);
    if (piece.empty() || piece.size() > 18 ||
        !std::all_of(piece.begin(), piece.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      return false;
    }
    if (dot == text.size()) return true;
    start = dot + 1;
  }
}

bool isForcedUpdate(const std::optional<std::string>& minVersion, std::string_view currentVersion) {
  return minVersion && isNewer(*minVersion, currentVersion);
}

std::optional<std::string> platformKeyFor(std::string_view machine) {
  if (machine == "x86_64") return "linux-x64";
  if (machine == "aarch64") return "linux-arm64";
  return std::nullopt;
}

std::optional<std::string> platformKey() {
  utsname names{};
  if (uname(&names) != 0) return std::nullopt;
  return platformKeyFor(names.machine);
}

std::string debianPackageKey(std::string_view platformKey) {
  return std::string(platformKey) + "-deb";
}

std::string currentVersion(const std::filesystem::path& bundleRoot) {
  const auto text = readTextFile(bundleRoot / "share" / "qor-velmora" / "APP_VERSION");
  if (!text) return unknownVersion;
  auto version = trimmed(*text);
  return version.empty() ? unknownVersion : version;
}

}  // namespace qor
