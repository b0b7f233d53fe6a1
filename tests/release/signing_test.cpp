// Signing through the real tool: keys made by keygen sign manifests the
// updater's own check accepts, and a key file that cannot sign is refused
// before anything is written.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "base/child_process.h"
#include "base/files.h"
#include "base/text.h"
#include "support/temporary_folder.h"
#include "updater/manifest_signature.h"

namespace qor {
namespace {

namespace fs = std::filesystem;

class ReleaseSigning : public ::testing::Test {
 protected:
  const testing::TemporaryFolder temporary{"qor-signing"};
  const fs::path& folder = temporary.path();
  fs::path image;

  void SetUp() override {
    fs::create_directories(folder / "staging" / "QOR Velmora" / "share" / "qor-velmora");
    ASSERT_TRUE(writeFileAtomically(folder / "staging/QOR Velmora/share/qor-velmora/APP_VERSION",
                                    "1.1.0\n"));
    image = folder / "QOR-Velmora-1.1.0-linux-x64.tar.gz";
    EXPECT_EQ(run("/usr/bin/tar", {"-czf", image, "-C", folder / "staging", "QOR Velmora"}).status,
              0);
  }

  ChildProcess::CapturedRun run(const fs::path& program, std::vector<std::string> arguments) {
    const auto ran = ChildProcess::runCapturingOutput(
        {.executable = program, .arguments = std::move(arguments), .workingDirectory = folder});
    EXPECT_TRUE(ran);
    return ran ? *ran : ChildProcess::CapturedRun{-1, ""};
  }
  ChildProcess::CapturedRun release(std::vector<std::string> arguments) {
    return run(QOR_RELEASE, std::move(arguments));
  }
  ChildProcess::CapturedRun sign(const std::string& key, const std::string& output) {
    return release({"--version", "1.1.0", "--base-url", "https://u.example/qor/", "--signing-key",
                    key, "--output", output, image});
  }
  std::string read(const fs::path& file) const { return readTextFile(folder / file).value_or(""); }
};

TEST_F(ReleaseSigning, KeygenSignAndTheUpdaterAccepts) {
  const auto made = release({"keygen", "--public-key", "pub.txt", "--private-key", "private.pem"});
  ASSERT_EQ(made.status, 0) << made.output;
  const auto publicKey = trimmed(read("pub.txt"));
  EXPECT_EQ(made.output,
            "Wrote the private key private.pem (keep it secret) and the public "
            "key pub.txt:\n  " +
                publicKey + "\n");
  EXPECT_EQ(fs::status(folder / "private.pem").permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(base64Decode(publicKey).value_or("").size(), ed25519PublicKeySize);

  // A second pair does not replace the first, nor leaves half a pair.
  for (const auto& [privateKey, publicFile] :
       {std::pair("private.pem", "other.txt"), std::pair("other.pem", "pub.txt")}) {
    const auto again = release({"keygen", "--private-key", privateKey, "--public-key", publicFile});
    EXPECT_EQ(again.status, 1) << again.output;
    EXPECT_FALSE(fs::exists(folder / "other.pem") || fs::exists(folder / "other.txt"));
  }
  EXPECT_EQ(trimmed(read("pub.txt")), publicKey);
  for (const std::vector<std::string>& wrong :
       {std::vector<std::string>{"keygen", "--private-key", "x.pem"},
        {"keygen", "--private-key", "x.pem", "--private-key", "y.pem"},
        {"keygen", "--private-key", "x.pem", "--public", "y.pub"}}) {
    EXPECT_EQ(release(wrong).status, 2);
  }
  EXPECT_FALSE(fs::exists(folder / "x.pem"));

  const auto signed_ = sign("private.pem", "latest.json");
  ASSERT_EQ(signed_.status, 0) << signed_.output;
  EXPECT_TRUE(signed_.output.starts_with("Wrote latest.json and its signature for version 1.1.0"));
  EXPECT_TRUE(verifyManifestSignature(read("latest.json"), read("latest.json.sig"), {publicKey}));
  // A key made by openssl itself serves as well.
  ASSERT_EQ(run("/usr/bin/openssl", {"genpkey", "-algorithm", "ed25519", "-out", "o.pem"}).status,
            0);
  ASSERT_EQ(sign("o.pem", "latest.json").status, 0);
  EXPECT_FALSE(verifyManifestSignature(read("latest.json"), read("latest.json.sig"), {publicKey}));
}

TEST_F(ReleaseSigning, KeyFilesThatCannotSignWriteNothing) {
  ASSERT_TRUE(writeFileAtomically(folder / "latest.json", "the previous release"));
  ASSERT_TRUE(writeFileAtomically(folder / "latest.json.sig", "its signature"));
  ASSERT_EQ(release({"keygen", "--private-key", "k.pem", "--public-key", "k.pub"}).status, 0);
  ASSERT_EQ(run("/usr/bin/openssl", {"genpkey", "-algorithm", "EC", "-pkeyopt",
                                     "ec_paramgen_curve:prime256v1", "-out", "ec.pem"})
                .status,
            0);
  ASSERT_EQ(run("/usr/bin/openssl", {"genpkey", "-algorithm", "ed25519", "-aes-128-cbc", "-pass",
                                     "pass:secret", "-out", "locked.pem"})
                .status,
            0);
  fs::create_directories(folder / "folder.pem");
  const std::pair<std::string, std::string> cases[] = {
      {"missing.pem", "is not a file"},
      {"folder.pem", "is not a file"},
      {"k.pub", "is not an Ed25519 private key in PEM"},
      {"ec.pem", "is not an Ed25519 private key in PEM"},
      {"locked.pem", "is not an Ed25519 private key in PEM"},
  };
  const auto before = std::distance(fs::directory_iterator(folder), {});
  for (const auto& [key, why] : cases) {
    for (const auto* output : {"latest.json", "new.json"}) {
      const auto refused = sign(key, output);
      EXPECT_EQ(refused.status, 1);
      EXPECT_EQ(refused.output, "qor-release: the signing key " + key + " " + why + "\n");
    }
  }
  EXPECT_EQ(read("latest.json"), "the previous release");
  EXPECT_EQ(read("latest.json.sig"), "its signature");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), before);
}

}  // namespace
}  // namespace qor
