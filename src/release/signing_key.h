// Signing releases: the Ed25519 key pair whose public half is pinned in the
// application (QOR_UPDATE_PUBLIC_KEYS), and the signed manifest it makes.
//
// The private key is kept as a PEM file (PKCS #8, as `openssl genpkey
// -algorithm ed25519` writes it) readable by its owner only; the public key
// file holds the base64 text that QOR_UPDATE_PUBLIC_KEYS takes.
//
// Threads: the calling thread only.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "base/error.h"
#include "release/release_manifest.h"

struct evp_pkey_st;

namespace qor {

inline constexpr const char* signingErrorDomain = "QOR.signing";

enum SigningErrorCode {
  signingBadKeyFile = 1,  // missing, unreadable or not an Ed25519 private key
  signingCannotWrite = 2,
};

class SigningKey {
 public:
  static Result<SigningKey> generate();
  static Result<SigningKey> load(const std::filesystem::path& privateKeyFile);

  // Writes both files, refusing to replace either: a lost private key
  // cannot be made again. On failure neither is left behind.
  Result<> save(const std::filesystem::path& privateKeyFile,
                const std::filesystem::path& publicKeyFile) const;

  std::string publicKey() const;  // base64, as QOR_UPDATE_PUBLIC_KEYS takes it
  std::string keyId() const;
  // The detached signature file's text for `bytes`.
  std::string signatureFor(std::string_view bytes) const;

 private:
  explicit SigningKey(evp_pkey_st* key);
  std::shared_ptr<evp_pkey_st> key_;
};

// writeReleaseManifest, and `output`.sig beside it signed with `key`. The
// signature is written first and the manifest renamed into place after it,
// as updaters need both; a refused request touches neither.
Result<QorManifest> writeSignedReleaseManifest(const ReleaseRequest& request,
                                               const std::filesystem::path& output,
                                               const SigningKey& key);

}  // namespace qor
