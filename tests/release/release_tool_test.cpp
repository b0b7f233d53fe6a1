// The release tool with real update images made by tar and packages made by
// dpkg-deb: what it writes is what the updater's own decoder and signature
// check accept, and inconsistent input or a key that cannot sign is refused
// without touching the output.
#include <gtest/gtest.h>

#include <functional>
#include <variant>
#include <vector>

#include "base/child_process.h"
#include "base/files.h"
#include "base/text.h"
#include "release/release_manifest.h"
#include "support/temporary_folder.h"
#include "updater/manifest_signature.h"

namespace qor {
namespace {

namespace fs = std::filesystem;

class ReleaseTool : public ::testing::Test {
 protected:
  const testing::TemporaryFolder temporary{"qor-release"};
  const fs::path& folder = temporary.path();

  // An image at `name` below the folder whose top-level folder `top` holds
  // share/qor-velmora/APP_VERSION with `appVersion`.
  fs::path makeImage(const std::string& name, const std::string& appVersion,
                     const std::string& top = "QOR Velmora") {
    const auto staging = folder / "staging" / name;
    const auto image = folder / name;
    fs::create_directories(staging / top / "share" / "qor-velmora");
    fs::create_directories(image.parent_path());
    EXPECT_TRUE(writeFileAtomically(staging / top / "share/qor-velmora/APP_VERSION", appVersion));
    const auto tarred = ChildProcess::run(
        {.executable = "/usr/bin/tar", .arguments = {"-czf", image, "-C", staging, top}});
    EXPECT_TRUE(tarred && *tarred == 0) << name;
    return image;
  }

  // A Debian package at `name` below the folder whose control file names
  // `package` at `packageVersion`.
  fs::path makePackage(const std::string& name, const std::string& packageVersion,
                       const std::string& package = "qor-velmora") {
    const auto root = folder / "staging" / name;
    const auto file = folder / name;
    fs::create_directories(root / "DEBIAN");
    fs::create_directories(file.parent_path());
    EXPECT_TRUE(writeFileAtomically(root / "DEBIAN/control",
                                    "Package: " + package + "\nVersion: " + packageVersion +
                                        "\nArchitecture: all\nMaintainer: QOR <q@example.org>\n"
                                        "Description: test package\n"));
    fs::permissions(root / "DEBIAN/control", fs::perms(0644));
    const auto built = ChildProcess::run({.executable = "/usr/bin/dpkg-deb",
                                          .arguments = {"--build", root, file},
                                          .output = OutputMode::discard});
    EXPECT_TRUE(built && *built == 0) << name;
    return file;
  }

  // The asset the updater should find for `image`, hashed by another program.
  static QorAsset assetOf(const fs::path& image, const std::string& folderUrl) {
    const auto sum = ChildProcess::runCapturingOutput(
        {.executable = "/usr/bin/sha256sum", .arguments = {image.string()}});
    EXPECT_TRUE(sum && sum->status == 0);
    return {folderUrl + image.filename().string(), sum ? sum->output.substr(0, 64) : "",
            static_cast<std::int64_t>(fs::file_size(image))};
  }

  // `program` run in the folder, and what it printed.
  ChildProcess::CapturedRun run(std::vector<std::string> arguments,
                                const fs::path& program = QOR_RELEASE) const {
    const auto ran = ChildProcess::runCapturingOutput(
        {.executable = program, .arguments = std::move(arguments), .workingDirectory = folder});
    EXPECT_TRUE(ran);
    return ran ? *ran : ChildProcess::CapturedRun{-1, ""};
  }
  ChildProcess::CapturedRun sign(const fs::path& image, const std::string& key,
                                 const std::string& output) const {
    return run({"--version", "1.1.0", "--base-url", "https://u.example/qor/", "--signing-key", key,
                "--output", output, image});
  }
  std::string read(const fs::path& file) const { return readTextFile(folder / file).value_or(""); }
};

TEST_F(ReleaseTool, WritesAManifestTheUpdaterDecodes) {
  const auto x64 = makeImage("QOR-Velmora-1.1.0-linux-x64.tar.gz", "1.1.0\n");
  const auto arm64 = makeImage("QOR-Velmora-1.1.0-linux-arm64.tar.gz", " 1.1.0 ");
  const auto amd64Package = makePackage("qor-velmora_1.1.0_amd64.deb", "1.1.0");
  const auto arm64Package = makePackage("qor-velmora_1.1.0_arm64.deb", "1.1.0");
  const auto output = folder / "latest.json";
  ASSERT_TRUE(writeFileAtomically(output, "the previous release"));
  const std::string notes = "修复 \"引号\"\n第二行";
  // With notes and a minimum version, then without: absent ones are left out. Debian packages
  // are announced beside the images.
  const std::pair<ReleaseRequest, QorManifest> cases[] = {
      {{"1.1.0", "https://updates.example.com/qor", notes, "1.0.0", {x64, arm64}},
       {"1.1.0",
        notes,
        "1.0.0",
        {{"linux-x64", assetOf(x64, "https://updates.example.com/qor/")},
         {"linux-arm64", assetOf(arm64, "https://updates.example.com/qor/")}}}},
      {{"1.1.0", "https://[::1]:8443/a%20b/", {}, {}, {x64}},
       {"1.1.0", {}, {}, {{"linux-x64", assetOf(x64, "https://[::1]:8443/a%20b/")}}}},
      {{"1.1.0", "https://u.example/qor/", {}, {}, {amd64Package, x64, arm64Package}},
       {"1.1.0",
        {},
        {},
        {{"linux-x64", assetOf(x64, "https://u.example/qor/")},
         {"linux-x64-deb", assetOf(amd64Package, "https://u.example/qor/")},
         {"linux-arm64-deb", assetOf(arm64Package, "https://u.example/qor/")}}}},
  };
  for (const auto& [request, expected] : cases) {
    const auto written = writeReleaseManifest(request, output);
    ASSERT_TRUE(written) << written.error().description;
    EXPECT_EQ(*written, expected);
    const auto text = readTextFile(output).value_or("");
    const auto decoded = decodeManifest(text);
    ASSERT_TRUE(decoded) << decoded.error().description;
    EXPECT_EQ(*decoded, expected) << text;
    EXPECT_EQ(text.find("notes") == std::string::npos, !expected.notes) << text;
    EXPECT_EQ(text.find("min_version") == std::string::npos, !expected.minVersion) << text;
  }
}

TEST_F(ReleaseTool, RefusesInconsistentInputAndWritesNothing) {
  const auto good = makeImage("QOR-Velmora-1.1.0-linux-x64.tar.gz", "1.1.0");
  const auto package = makePackage("qor-velmora_1.1.0_amd64.deb", "1.1.0");
  const auto text = [&](const std::string& name) {
    fs::create_directories((folder / name).parent_path());
    EXPECT_TRUE(writeFileAtomically(folder / name, "not an image"));
    return folder / name;
  };
  const auto with = [&](const std::function<void(ReleaseRequest&)>& change) {
    ReleaseRequest request{"1.1.0", "https://u.example/qor", "notes", "1.0.0", {good}};
    change(request);
    return request;
  };
  const auto base = [&](const std::string& address) {
    return with([&](ReleaseRequest& r) { r.baseUrl = address; });
  };
  // Requests, or files added to the good one (packages after a good package); "@" in the
  // refusal stands for the file.
  const std::pair<std::variant<ReleaseRequest, fs::path>, std::string> cases[] = {
      {with([](auto& r) { r.images.clear(); }), "no image given"},
      {with([](auto& r) { r.version = "v1.1"; }),
       "the version \"v1.1\" is not a version such as 1.1.0"},
      {with([](auto& r) { r.minVersion = "1.0 "; }),
       "the minimum version \"1.0 \" is not a version such as 1.0.0"},
      {with([](auto& r) { r.minVersion = "1.1.0.1"; }),
       "the minimum version 1.1.0.1 is above the release version 1.1.0"},
      {base("http://u.example/qor"),
       "the base address \"http://u.example/qor\" is not an https:// address of a folder"},
      {base("https://u.example/get?file="),
       "the base address \"https://u.example/get?file=\" is not an https:// address of a folder"},
      {folder / "gone/QOR-Velmora-1.1.0-linux-arm64.tar.gz",
       "cannot open @: No such file or directory"},
      {folder / "Velmora-1.1.0-linux-x64.tar.gz",
       "@: the name must be QOR-Velmora-<version>-<platform key>.tar.gz"},
      {makeImage("QOR-Velmora-1.1.0-darwin-x64.tar.gz", "1.1.0"),
       "@: unknown platform key \"darwin-x64\" (known: linux-x64, linux-arm64)"},
      {makeImage("copy/QOR-Velmora-1.1.0-linux-x64.tar.gz", "1.1.0"),
       "@: a second image for linux-x64"},
      {makeImage("QOR-Velmora-1.0.9-linux-arm64.tar.gz", "1.1.0"),
       "@: named for version 1.0.9, but the release is version 1.1.0"},
      {makeImage("QOR-Velmora-1.1.0-linux-arm64.tar.gz", "1.0.9"),
       "@: holds version \"1.0.9\" (QOR Velmora/share/qor-velmora/APP_VERSION), but the release "
       "is version 1.1.0"},
      {text("text/QOR-Velmora-1.1.0-linux-arm64.tar.gz"), "@: not a gzip-compressed tar archive"},
      {makeImage("bare/QOR-Velmora-1.1.0-linux-arm64.tar.gz", "1.1.0", "Other"),
       "@: has no \"QOR Velmora/share/qor-velmora/APP_VERSION\": its top-level entry must be the "
       "folder \"QOR Velmora\""},
      {makePackage("copy/qor-velmora_1.1.0_amd64.deb", "1.1.0"),
       "@: a second package for linux-x64-deb"},
      {makePackage("qor-velmora_1.0.9_arm64.deb", "1.1.0"),
       "@: named for version 1.0.9, but the release is version 1.1.0"},
      {makePackage("qor-velmora_1.1.0_arm64.deb", "1.0.9"),
       "@: holds version \"1.0.9\" (its control file), but the release is version 1.1.0"},
      {makePackage("other/qor-velmora_1.1.0_arm64.deb", "1.1.0", "other"),
       "@: not the qor-velmora package"},
      {makePackage("qor-velmora_1.1.0_i386.deb", "1.1.0"),
       "@: unknown architecture \"i386\" (known: amd64, arm64)"},
      {makePackage("qor-velmora-1.1.0-amd64.deb", "1.1.0"),
       "@: the name must be qor-velmora_<version>_<architecture>.deb"},
      {text("text/qor-velmora_1.1.0_arm64.deb"), "@: not a Debian package"},
  };
  const auto outputs = folder / "out";
  const auto existing = outputs / "latest.json", fresh = outputs / "new.json";
  fs::create_directories(outputs);
  ASSERT_TRUE(writeFileAtomically(existing, "the previous release"));
  for (const auto& [change, refusal] : cases) {
    auto request = with([](auto&) {});
    auto expected = refusal;
    if (const auto* file = std::get_if<fs::path>(&change)) {
      if (file->filename().string().ends_with(".deb")) request.images.push_back(package);
      request.images.push_back(*file);
      expected.replace(expected.find('@'), 1, file->string());
    } else {
      request = std::get<ReleaseRequest>(change);
    }
    for (const auto& output : {existing, fresh}) {
      const auto written = writeReleaseManifest(request, output);
      ASSERT_FALSE(written) << expected;
      EXPECT_EQ(written.error().description, expected);
    }
    EXPECT_EQ(readTextFile(existing), "the previous release") << expected;
    EXPECT_EQ(std::distance(fs::directory_iterator(outputs), {}), 1) << expected;
  }
  // The request every case changes is itself fine, and so is its package.
  EXPECT_TRUE(writeReleaseManifest(with([&](auto& r) { r.images.push_back(package); }), fresh));
}

TEST_F(ReleaseTool, CommandLine) {
  const auto image = makeImage("QOR-Velmora-1.1.0-linux-x64.tar.gz", "1.1.0");
  ASSERT_TRUE(writeFileAtomically(folder / "NOTES.txt", "修复\n"));
  const std::string imagePath = image.string();
  // Run in this order, in the folder: the refusal at the end keeps the
  // latest.json written before it.
  const std::tuple<std::vector<std::string>, int, std::string> runs[] = {
      {{"--help"}, 0, "Usage: qor-release --version VERSION --base-url URL"},
      {{"--version", "1.1.0", "--base-url", "https://u.example/qor", "--notes-file", "NOTES.txt",
        "--min-version", "1.0.0", imagePath},
       0,
       "Wrote latest.json for version 1.1.0:\n  linux-x64  https://u.example/qor/"
       "QOR-Velmora-1.1.0-linux-x64.tar.gz  "},
      {{}, 2, "qor-release: --version is required (see qor-release --help)\n"},
      {{"--version", "1.1.0", "--base-url", "https://u", "--notes", "a", "--notes-file", "b", "c"},
       2,
       "qor-release: give --notes or --notes-file, not both (see qor-release --help)\n"},
      {{"--version", "1.2.0", "--base-url", "https://u.example/qor", imagePath},
       1,
       "qor-release: " + imagePath +
           ": named for version 1.1.0, but the release is version 1.2.0\n"},
  };
  for (const auto& [arguments, status, output] : runs) {
    const auto ran = run(arguments);
    EXPECT_EQ(ran.status, status) << ran.output;
    if (status == 0) {
      EXPECT_TRUE(ran.output.starts_with(output)) << ran.output;
    } else {
      EXPECT_EQ(ran.output, output);  // one line
    }
  }
  const auto manifest = decodeManifest(read("latest.json"));
  ASSERT_TRUE(manifest);
  EXPECT_EQ(manifest->version, "1.1.0");
  EXPECT_EQ(manifest->notes, "修复");
  EXPECT_EQ(manifest->minVersion, "1.0.0");
  EXPECT_EQ(manifest->platforms.at("linux-x64"), assetOf(image, "https://u.example/qor/"));
}

TEST_F(ReleaseTool, KeygenSignAndTheUpdaterAccepts) {
  const auto image = makeImage("QOR-Velmora-1.1.0-linux-x64.tar.gz", "1.1.0\n");
  const auto made = run({"keygen", "--public-key", "pub.txt", "--private-key", "private.pem"});
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
    const auto again = run({"keygen", "--private-key", privateKey, "--public-key", publicFile});
    EXPECT_EQ(again.status, 1) << again.output;
    EXPECT_FALSE(fs::exists(folder / "other.pem") || fs::exists(folder / "other.txt"));
  }
  EXPECT_EQ(trimmed(read("pub.txt")), publicKey);
  for (const std::vector<std::string>& wrong :
       {std::vector<std::string>{"keygen", "--private-key", "x.pem"},
        {"keygen", "--private-key", "x.pem", "--private-key", "y.pem"},
        {"keygen", "--private-key", "x.pem", "--public", "y.pub"}}) {
    EXPECT_EQ(run(wrong).status, 2);
  }
  EXPECT_FALSE(fs::exists(folder / "x.pem"));

  const auto signed_ = sign(image, "private.pem", "latest.json");
  ASSERT_EQ(signed_.status, 0) << signed_.output;
  EXPECT_TRUE(signed_.output.starts_with("Wrote latest.json and its signature for version 1.1.0"));
  EXPECT_TRUE(verifyManifestSignature(read("latest.json"), read("latest.json.sig"), {publicKey}));
  // A key made by openssl itself serves as well.
  ASSERT_EQ(run({"genpkey", "-algorithm", "ed25519", "-out", "o.pem"}, "/usr/bin/openssl").status,
            0);
  ASSERT_EQ(sign(image, "o.pem", "latest.json").status, 0);
  EXPECT_FALSE(verifyManifestSignature(read("latest.json"), read("latest.json.sig"), {publicKey}));
}

TEST_F(ReleaseTool, KeyFilesThatCannotSignWriteNothing) {
  const auto image = makeImage("QOR-Velmora-1.1.0-linux-x64.tar.gz", "1.1.0\n");
  ASSERT_TRUE(writeFileAtomically(folder / "latest.json", "the previous release"));
  ASSERT_TRUE(writeFileAtomically(folder / "latest.json.sig", "its signature"));
  ASSERT_EQ(run({"keygen", "--private-key", "k.pem", "--public-key", "k.pub"}).status, 0);
  ASSERT_EQ(run({"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-out",
                 "ec.pem"},
                "/usr/bin/openssl")
                .status,
            0);
  ASSERT_EQ(run({"genpkey", "-algorithm", "ed25519", "-aes-128-cbc", "-pass", "pass:secret", "-out",
                 "locked.pem"},
                "/usr/bin/openssl")
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
      const auto refused = sign(image, key, output);
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
