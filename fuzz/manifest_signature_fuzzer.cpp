// The manifest's signature check. The input is a signature file's text, a
// line feed, then the manifest. Whatever the text, the check accepts exactly
// the signature the trusted key makes of those bytes, and refuses the rest
// with a reason; base64 reads back what it wrote.
#include <openssl/evp.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "fuzz_input.h"
#include "updater/manifest_signature.h"

using namespace qor;

namespace {

struct SigningKey {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key{nullptr, EVP_PKEY_free};
  std::string publicKey;  // raw

  SigningKey() {
    std::array<unsigned char, 32> seed{};
    for (std::size_t i = 0; i < seed.size(); ++i) seed[i] = static_cast<unsigned char>(7 * i + 1);
    key.reset(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()));
    std::size_t length = ed25519PublicKeySize;
    publicKey.resize(length);
    EVP_PKEY_get_raw_public_key(key.get(), reinterpret_cast<unsigned char*>(publicKey.data()),
                                &length);
  }

  std::string sign(std::string_view bytes) const {
    std::string signature(ed25519SignatureSize, '\0');
    std::size_t length = signature.size();
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get());
    EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                   reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    return signature;
  }
};

// Base64 as RFC 4648 reads it, ignoring the unused bits of the last
// character: what a signature text stands for, whichever spelling it has.
std::optional<std::string> referenceBase64(std::string_view text) {
  static constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (text.size() % 4 != 0) return std::nullopt;
  const auto padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  std::string bytes;
  unsigned bits = 0, count = 0;
  for (std::size_t i = 0; i < text.size() - padding; ++i) {
    const auto value = alphabet.find(text[i]);
    if (value == std::string_view::npos) return std::nullopt;
    bits = (bits << 6) | unsigned(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes += static_cast<char>((bits >> count) & 0xFF);
    }
  }
  return bytes;
}

std::string_view trimmedLine(std::string_view line) {
  const auto first = line.find_first_not_of(" \t\r\n\v\f");
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(" \t\r\n\v\f") - first + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const SigningKey signer;
  const auto input = fuzz::textOf(data, size);
  const auto parts = fuzz::partsOf(input, '\n', 2);
  const std::string_view signatureFile = parts[0], manifest = parts[1];
  const std::vector<std::string> trusted = {"not a key", base64Encode(std::string(31, 'k')),
                                            base64Encode(signer.publicKey)};

  const auto checked = verifyManifestSignature(manifest, signatureFile, trusted);
  if (checked) {
    const auto line = trimmedLine(signatureFile);
    const auto space = line.find(' ');
    fuzz::expect(space != std::string_view::npos &&
                     line.substr(0, space) == keyIdOf(signer.publicKey) &&
                     referenceBase64(line.substr(space + 1)) == signer.sign(manifest),
                 "only the trusted key's signature of these bytes is accepted", input);
  } else {
    fuzz::expect(!checked.error().description.empty() &&
                     checked.error().description.find('\n') == std::string::npos,
                 "a refusal says why in one line", input);
  }

  // The right signature of these bytes passes, whatever the bytes.
  const auto genuine = signatureFileText(keyIdOf(signer.publicKey), signer.sign(manifest));
  fuzz::expect(verifyManifestSignature(manifest, genuine, trusted).ok(),
               "the trusted key's own signature is accepted", input);
  fuzz::expect(input.empty() || base64Decode(base64Encode(input)) == std::string(input),
               "base64 reads back what it wrote", input);
  return 0;
}
