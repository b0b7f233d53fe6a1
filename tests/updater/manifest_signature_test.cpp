// The manifest's signature: which signature files verify, and why the others
// do not. How a check blocks such a manifest is seen through the window.
#include "updater/manifest_signature.h"

#include <map>

#include "updater_test_support.h"

namespace qor::testing {
namespace {

TEST(ManifestSignature, VerifiesOnlyTheTrustedKeysSignatureOfTheseBytes) {
  const auto first = SigningKey::generate().value(), second = SigningKey::generate().value(),
             stranger = SigningKey::generate().value();
  const std::string manifest = R"({"version": "1.1.0", "platforms": {}})";
  std::string changed = manifest;
  changed[changed.find("1.1.0") + 4] = '1';
  const auto signature = first.signatureFor(manifest);
  const auto forged = first.keyId() + stranger.signatureFor(manifest).substr(16);
  const std::vector<std::string> pinned = {first.publicKey(), second.publicKey()};
  const std::tuple<std::string, std::string, std::vector<std::string>, int> cases[] = {
      {manifest, signature, pinned, 0},
      {manifest, second.signatureFor(manifest), pinned, 0},  // the rotated-in key
      {manifest, signature, {"not a key", first.publicKey()}, 0},
      {manifest, " " + signature + "\n\n", pinned, 0},
      {changed, signature, pinned, signatureMismatch},
      {manifest, forged, pinned, signatureMismatch},
      {manifest, second.signatureFor(manifest), {first.publicKey()}, signatureUnknownKey},
      {manifest, stranger.signatureFor(manifest), pinned, signatureUnknownKey},
      {manifest, signature, {}, signatureUnknownKey},
      {manifest, "", pinned, signatureMissing},
      {manifest, "\n", pinned, signatureMissing},
      {manifest, signature.substr(0, signature.size() / 2), pinned, signatureMalformed},
      {manifest, signature.substr(0, signature.size() - 5) + "=\n", pinned, signatureMalformed},
      {manifest, signature.substr(17), pinned, signatureMalformed},  // without the key id
      {manifest, first.keyId() + "  " + signature.substr(17), pinned, signatureMalformed},
      {manifest, signature.substr(0, 20) + "*" + signature.substr(21), pinned, signatureMalformed},
      {manifest, first.keyId() + " " + base64Encode(std::string(65, 'x')), pinned,
       signatureMalformed},
  };
  // What the updater writes to its diagnostics when it blocks a manifest.
  const std::map<int, std::string> why = {
      {signatureMissing, "the manifest has no signature"},
      {signatureMalformed, "the manifest's signature is not \"<key id> <base64 signature>\""},
      {signatureMismatch,
       "the manifest's signature by key " + first.keyId() + " does not match it"},
      {signatureUnknownKey, "the manifest is signed by key *, which is not trusted"}};
  for (const auto& [bytes, file, trusted, code] : cases) {
    SCOPED_TRACE(file);
    const auto verified = verifyManifestSignature(bytes, file, trusted);
    ASSERT_EQ(verified ? 0 : verified.error().code, code);
    if (!verified) {
      EXPECT_PRED2(fits, why.at(code), verified.error().description);
    }
  }
}

TEST(ManifestSignature, Base64IsStrict) {
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"Zm9v", "foo"}, {"Zm8=", "fo"}, {"Zg==", "f"}, {"AAAA", std::string(3, '\0')},
      {"", {}},        {"Zm9", {}},    {"Zg=v", {}},  {"Z===", {}},
      {" Zm9v", {}},   {"Zm9v\n", {}}, {"Zm 9", {}},  {"Zm9v====", {}},
  };
  for (const auto& [text, bytes] : cases) EXPECT_EQ(base64Decode(text), bytes) << text;
  EXPECT_EQ(base64Encode("fo"), "Zm8=");
}

}  // namespace
}  // namespace qor::testing
