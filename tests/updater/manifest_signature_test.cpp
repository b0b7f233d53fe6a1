// The manifest's signature: which signature files verify, and that a check
// whose manifest does not verify blocks the update before anything else.
#include "updater/manifest_signature.h"

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
  for (const auto& [bytes, file, trusted, code] : cases) {
    SCOPED_TRACE(file);
    const auto verified = verifyManifestSignature(bytes, file, trusted);
    EXPECT_EQ(verified ? 0 : verified.error().code, code)
        << (verified ? "" : verified.error().description);
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

// Every way a signature can fail blocks a check before the manifest counts:
// the user sees why, a silent check only writes a diagnostic line, and
// nothing is downloaded.
TEST_F(UpdaterTest, CheckBlocksManifestsWithoutATrustedSignature) {
  const auto manifest =
      json{{"version", "1.1.0"}, {"platforms", {{"linux-x64", publishImage("new")}}}}.dump();
  std::string changed = manifest;
  changed[changed.find("1.1.0") + 4] = '1';
  const auto signature = signingKey_.signatureFor(manifest);
  const auto stranger = SigningKey::generate().value();
  const std::tuple<std::string, json, std::string> cases[] = {
      {manifest, {{"status", 404}}, "update blocked: the manifest has no signature"},
      {manifest,
       {{"body", stranger.signatureFor(manifest)}},
       "update blocked: the manifest is signed by key " + stranger.keyId() +
           ", which is not trusted"},
      {changed,
       {{"body", signature}},
       "update blocked: the manifest's signature by key " + signingKey_.keyId() +
           " does not match it"},
      {manifest,
       {{"body", signature.substr(0, 60)}},
       "update blocked: the manifest's signature is not \"<key id> <base64 signature>\""},
  };
  std::mutex mutex;
  std::vector<std::string> diagnostics;
  const auto diagnosed = [&] {
    std::lock_guard lock(mutex);
    return diagnostics.size();
  };
  for (const auto& [served, signatureRoute, line] : cases) {
    SCOPED_TRACE(line);
    route({{"/qor/latest.json", {{"body", served}}}, {"/qor/latest.json.sig", signatureRoute}});
    const auto [alerts, lines] = std::pair(ui_->alerts.size(), diagnosed());
    const auto recording = [&](Updater::Settings& settings) {
      settings.diagnostics = [&](const std::string& text) {
        std::lock_guard lock(mutex);
        diagnostics.push_back(text);
      };
    };
    const auto silent = makeUpdater(recording), user = makeUpdater(recording);
    silent->scheduleAutomaticCheck();
    ASSERT_TRUE(ui_->pumpUntil([&] { return diagnosed() > lines; }));
    ui_->pumpFor(300ms);  // room for a wrong alert to show
    EXPECT_EQ(ui_->alerts.size(), alerts);

    user->checkForUpdates();
    ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() > alerts; }));
    EXPECT_EQ(ui_->alerts.back(), "已阻止更新|更新清单的签名缺失或无效。|好");
    std::lock_guard lock(mutex);
    // One for each check, then what the user was shown.
    EXPECT_EQ(std::vector(diagnostics.begin() + lines, diagnostics.end()),
              (std::vector<std::string>{line, line, "已阻止更新: 更新清单的签名缺失或无效。"}));
  }
  EXPECT_TRUE(ui_->progress.empty()) << "nothing downloaded";
  EXPECT_TRUE(entriesOf(temporary_).empty());
}

// A manifest signed by the second pinned key, the one a rotation brings in,
// is offered like any other.
TEST_F(UpdaterTest, CheckAcceptsTheSecondTrustedKey) {
  const auto rotated = SigningKey::generate().value();
  const auto manifest =
      json{{"version", "1.1.0"}, {"platforms", {{"linux-x64", publishImage("new")}}}}.dump();
  route({{"/qor/latest.json", {{"body", manifest}}},
         {"/qor/latest.json.sig", {{"body", rotated.signatureFor(manifest)}}}});
  const auto rotating = [&](Updater::Settings& settings) {
    settings.trustedKeys.push_back(rotated.publicKey());
  };
  const auto before = makeUpdater(), after = makeUpdater(rotating);
  before->checkForUpdates();
  after->checkForUpdates();
  ASSERT_TRUE(ui_->pumpUntil([&] { return ui_->alerts.size() == 2; }));
  std::sort(ui_->alerts.begin(), ui_->alerts.end());
  EXPECT_PRED2(fits, "发现新版本 1.1.0|当前版本：1.0.0\n*|立即更新,稍后", ui_->alerts[0]);
  EXPECT_EQ(ui_->alerts[1], "已阻止更新|更新清单的签名缺失或无效。|好");  // not yet trusted
}

}  // namespace
}  // namespace qor::testing
