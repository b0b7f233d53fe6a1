// The update manifest's detached signature ("latest.json.sig" next to
// "latest.json"): an Ed25519 signature of the manifest's exact bytes by one of
// the keys pinned in the application when it was built. The file is one line,
//   <key id> <signature in base64>
// where the key id names the signing key (see keyIdOf), so that a second,
// offline key can take over without clients trying every key.
//
// Threads: pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"

namespace qor {

// The signature's name: the manifest's with this appended.
inline constexpr const char* manifestSignatureSuffix = ".sig";

inline constexpr const char* signatureErrorDomain = "QOR.signature";

enum SignatureErrorCode {
  signatureMissing = 1,     // no signature file, or an empty one
  signatureMalformed = 2,   // not "<key id> <base64 of 64 bytes>"
  signatureUnknownKey = 3,  // made by a key the application does not trust
  signatureMismatch = 4,    // not a signature of these bytes by that key
};

inline constexpr std::size_t ed25519PublicKeySize = 32;
inline constexpr std::size_t ed25519SignatureSize = 64;

// The base64 public keys pinned when the application was built.
std::vector<std::string> pinnedUpdateKeys();

std::string base64Encode(std::string_view bytes);
// Strict: padded base64 without white space; nothing for anything else.
std::optional<std::string> base64Decode(std::string_view text);

// A public key's id: the first 16 hexadecimal digits of the SHA-256 of its
// 32 raw bytes.
std::string keyIdOf(std::string_view rawPublicKey);

// The signature file's text for the raw `signature` made by the key `keyId`.
std::string signatureFileText(const std::string& keyId, std::string_view signature);

// Whether `signatureFile` holds a signature of exactly `manifest` by one of
// `trustedKeys` (base64 public keys). An empty `signatureFile` is a missing
// one. The error says why not in one line.
Result<> verifyManifestSignature(std::string_view manifest, std::string_view signatureFile,
                                 const std::vector<std::string>& trustedKeys);

}  // namespace qor
