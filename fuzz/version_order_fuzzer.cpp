// The order of application versions. The input is three versions, one per
// line. `isNewer` must be a strict order on them: irreflexive, asymmetric,
// transitive, with two versions unordered exactly when their pieces are
// equal (missing pieces counting as 0).
#include <cstdint>
#include <string_view>
#include <vector>

#include "fuzz_input.h"
#include "updater/version_rules.h"

using namespace qor;

namespace {

// A piece's value read digit by digit: an optional sign, then decimal digits
// within 64 bits; anything else is 0.
std::int64_t pieceValue(std::string_view piece) {
  const bool negative = piece.starts_with('-');
  if (piece.starts_with('-') || piece.starts_with('+')) piece.remove_prefix(1);
  if (piece.empty()) return 0;
  const std::uint64_t limit = negative ? std::uint64_t(1) << 63 : INT64_MAX;
  std::uint64_t value = 0;
  for (const char c : piece) {
    if (c < '0' || c > '9') return 0;
    const auto digit = std::uint64_t(c - '0');
    if (value > (limit - digit) / 10) return 0;
    value = value * 10 + digit;
  }
  return static_cast<std::int64_t>(negative ? 0 - value : value);
}

std::vector<std::int64_t> pieces(std::string_view version) {
  std::vector<std::int64_t> values;
  for (const auto piece : fuzz::partsOf(version, '.', version.size() + 1)) {
    if (!piece.empty()) values.push_back(pieceValue(piece));
  }
  while (!values.empty() && values.back() == 0) values.pop_back();
  return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = fuzz::textOf(data, size);
  const auto versions = fuzz::partsOf(input, '\n', 3);
  for (const auto a : versions) {
    fuzz::expect(!isNewer(a, a), "no version is newer than itself", input);
    for (const auto b : versions) {
      const bool newer = isNewer(a, b), older = isNewer(b, a);
      fuzz::expect(!(newer && older), "of two versions at most one is newer", input);
      fuzz::expect((!newer && !older) == (pieces(a) == pieces(b)),
                   "two versions are unordered exactly when their pieces are equal", input);
      fuzz::expect(isForcedUpdate(std::string(a), b) == newer,
                   "a minimum version forces an update exactly when it is newer", input);
      for (const auto c : versions) {
        if (newer && isNewer(b, c)) {
          fuzz::expect(isNewer(a, c), "newer than a newer version is newer", input);
        }
      }
    }
  }
  return 0;
}
