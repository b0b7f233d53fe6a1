// The pure rules: version order, the forced update, platform keys, the
// running version and decoding the manifest.
#include "updater/qor_manifest.h"
#include "updater/version_rules.h"
#include "updater_test_support.h"

namespace qor::testing {
namespace {

TEST(UpdateVersionRules, IsNewerAndTheForcedUpdate) {
  // "a<b": b is newer than a, not the other way round; "a=b": neither is newer. Pieces that
  // are not strict decimal numbers within 64 bits count as 0; empty pieces are dropped.
  for (const std::string pair :
       {"1.0<1.0.1", "1.0=1.0.0", "1<1.0.0.0.1", "1.-1<1", "1.9<1.10", "2.0=2.0", "v2.0<1.0",
        "2.0.0-rc1=2.0.0", "r2=0", " 4=0", "0x10<1", "6<+7", "-1<+-1", "1.2<1..3", ".1.2.=1.2",
        "=0", "9223372036854775806<9223372036854775807", "9223372036854775808<1",
        "-9223372036854775808<-9223372036854775807"}) {
    const auto at = pair.find_first_of("<=");
    const auto left = pair.substr(0, at), right = pair.substr(at + 1);
    EXPECT_FALSE(isNewer(left, right)) << pair;
    EXPECT_EQ(isNewer(right, left), pair[at] == '<') << pair;
  }
  const std::tuple<std::optional<std::string>, const char*, bool> forced[] = {
      {std::nullopt, "1.0", false}, {"", "0", false},      {"1.0", "1.0.0", false},
      {"1.0.1", "1.0", true},       {"0.9", "1.0", false}, {"2.0", "0.0.0", true}};
  for (const auto& [minVersion, current, expected] : forced) {
    EXPECT_EQ(isForcedUpdate(minVersion, current), expected) << minVersion.value_or("none");
  }
}

TEST(UpdateVersionRules, PlatformKeyAndRunningVersion) {
  const std::pair<const char*, std::optional<std::string>> keys[] = {
      {"x86_64", "linux-x64"}, {"aarch64", "linux-arm64"}, {"arm64", {}}, {"X86_64", {}}, {"", {}}};
  for (const auto& [machine, key] : keys) EXPECT_EQ(platformKeyFor(machine), key) << machine;

  const TemporaryFolder folder;
  const auto& root = folder.path();
  EXPECT_EQ(currentVersion(root), "0.0.0");
  for (const auto& [text, version] : {std::pair{" 1.2.3\r\n", "1.2.3"}, {"\n \t\n", "0.0.0"}}) {
    writeFile(root / "share" / "qor-velmora" / "APP_VERSION", text);
    EXPECT_EQ(currentVersion(root), version) << text;
  }
}

TEST(UpdateManifestDecoding, AcceptsWellTypedDocuments) {
  const QorAsset x64{"https://u/x.tar.gz", "AB12", 1234}, other{"u", "s", {}};
  const std::pair<std::string, QorManifest> cases[] = {
      {R"({"version":"2.4.0","notes":"修复","min_version":"2.0.0","extra":[{}],"platforms":{
           "linux-x64":{"url":"https://u/x.tar.gz","sha256":"AB12","size":1234,"sig":"x"},
           "darwin-arm64":{"url":"u","sha256":"s"}}})",
       {"2.4.0", "修复", "2.0.0", {{"linux-x64", x64}, {"darwin-arm64", other}}}},
      // Absent and null optionals are the same; "" stays "".
      {R"({"version":"1","notes":null,"platforms":{}})", {"1", {}, {}, {}}},
      {R"({"version":"1","notes":"","min_version":"","platforms":{}})", {"1", "", "", {}}},
      // Asset values are not checked here; a size is any signed 64-bit number.
      {R"({"version":"0","platforms":{"a":{"url":"","sha256":"","size":0},"b":{"url":"u",
           "sha256":"s","size":null},"c":{"url":"u","sha256":"s","size":-9223372036854775808}}})",
       {"0", {}, {}, {{"a", {"", "", 0}}, {"b", other}, {"c", {"u", "s", INT64_MIN}}}}},
  };
  for (const auto& [text, expected] : cases) {
    const auto decoded = decodeManifest(text);
    ASSERT_TRUE(decoded) << text << "\n" << decoded.error().description;
    EXPECT_EQ(*decoded, expected) << text;
  }
}

TEST(UpdateManifestDecoding, OneMalformedPartFailsTheWholeManifest) {
  // A good entry for this machine and `asset` for another platform.
  const auto other = [](const std::string& asset) {
    return R"({"version":"1","platforms":{"linux-x64":{"url":"u","sha256":"s"},"b":)" + asset +
           "}}";
  };
  const auto size = [&](const std::string& size) {
    return other(R"({"url":"u","sha256":"s","size":)" + size + "}");
  };
  const std::tuple<std::string, int, std::string> cases[] = {
      {"", manifestNotJSON, "not valid JSON ("},
      {"[]", manifestWrongType, "must be a JSON object, not an array"},
      {R"({"platforms":{}})", manifestMissingKey, "\"version\" is missing"},
      {R"({"version":null,"platforms":{}})", manifestWrongType, "\"version\" must be a string"},
      {R"({"version":"1","notes":5,"platforms":{}})", manifestWrongType, "\"notes\" must be"},
      {R"({"version":"1"})", manifestMissingKey, "\"platforms\" is missing"},
      {other(R"("x")"), manifestWrongType, "\"platforms.b\" must be an object"},
      {other(R"({"sha256":"s"})"), manifestMissingKey, "\"platforms.b.url\" is missing"},
      {other(R"({"url":"u","sha256":null})"), manifestWrongType, "\"platforms.b.sha256\" must"},
      {size("\"12\""), manifestWrongType, "\"platforms.b.size\" must be a whole number"},
      {size("1.5"), manifestWrongType, "\"platforms.b.size\""},
      {size("9223372036854775808"), manifestWrongType, "\"platforms.b.size\""},
      {size("-9223372036854775809"), manifestWrongType, "\"platforms.b.size\""},
  };
  for (const auto& [text, code, reason] : cases) {
    const auto decoded = decodeManifest(text);
    ASSERT_FALSE(decoded) << text;
    EXPECT_EQ(decoded.error().code, code) << text;
    EXPECT_NE(decoded.error().description.find(reason), std::string::npos)
        << text << "\n"
        << decoded.error().description;
  }
}

}  // namespace
}  // namespace qor::testing
