#include "updater/manifest_signature.h"

#include <openssl/evp.h>

#include <memory>

#include "base/text.h"
#include "updater/update_config.h"

namespace qor {
namespace {

Error signatureError(SignatureErrorCode code, std::string description) {
  return Error{signatureErrorDomain, code, std::move(description)};
}

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

bool verifies(std::string_view manifest, std::string_view signature, std::string_view publicKey) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, bytesOf(publicKey), publicKey.size()),
      EVP_PKEY_free);
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  return key && context &&
         EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
         EVP_DigestVerify(context.get(), bytesOf(signature), signature.size(), bytesOf(manifest),
                          manifest.size()) == 1;
}

}  // namespace

std::vector<std::string> pinnedUpdateKeys() {
  std::vector<std::string> keys;
  std::string_view list = updatePublicKeys;
  while (!list.empty()) {
    const auto end = list.find(';');
    if (auto key = trimmed(list.substr(0, end)); !key.empty()) keys.push_back(std::move(key));
    list.remove_prefix(end == std::string_view::npos ? list.size() : end + 1);
  }
  return keys;
}

std::string base64Encode(std::string_view bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3), '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytesOf(bytes),
                  static_cast<int>(bytes.size()));
  return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
  // EVP_DecodeBlock skips white space at the ends and keeps the padding's
  // zero bytes; neither belongs to the strict form.
  if (text.empty() || text.size() % 4 != 0 || text.front() <= ' ' || text.back() <= ' ') {
    return std::nullopt;
  }
  std::string bytes(text.size() / 4 * 3, '\0');
  const int decoded = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()), bytesOf(text),
                                      static_cast<int>(text.size()));
  if (decoded < 0) return std::nullopt;
  const auto padding = text.size() - text.find_last_not_of('=') - 1;
  if (padding > 2) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(decoded) - padding);
  // Padding is only allowed at the end.
  if (text.find('=') < text.size() - padding) return std::nullopt;
  return bytes;
}

std::string keyIdOf(std::string_view rawPublicKey) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(rawPublicKey.data(), rawPublicKey.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char hex[] = "0123456789abcdef";
  std::string id;
  for (unsigned int i = 0; i < 8 && i < length; ++i) {
    id += hex[digest[i] >> 4];
    id += hex[digest[i] & 0xF];
  }
  return id;
}

std::string signatureFileText(const std::string& keyId, std::string_view signature) {
  return keyId + " " + base64Encode(signature) + "\n";
}

Result<> verifyManifestSignature(std::string_view manifest, std::string_view signatureFile,
                                 const std::vector<std::string>& trustedKeys) {
  const auto line = trimmed(signatureFile);
  if (line.empty()) return signatureError(signatureMissing, "the manifest has no signature");
  const auto space = line.find(' ');
  const auto signature =
      space == std::string::npos ? std::nullopt : base64Decode(line.substr(space + 1));
  if (!signature || signature->size() != ed25519SignatureSize) {
    return signatureError(signatureMalformed,
                          "the manifest's signature is not \"<key id> <base64 signature>\"");
  }
  const auto keyId = line.substr(0, space);
  for (const auto& trusted : trustedKeys) {
    const auto key = base64Decode(trusted);
    if (!key || key->size() != ed25519PublicKeySize || keyIdOf(*key) != keyId) continue;
    if (verifies(manifest, *signature, *key)) return {};
    return signatureError(signatureMismatch,
                          "the manifest's signature by key " + keyId + " does not match it");
  }
  return signatureError(signatureUnknownKey,
                        "the manifest is signed by key " + keyId + ", which is not trusted");
}

}  // namespace qor
