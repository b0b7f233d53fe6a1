#include "release/signing_key.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "base/files.h"
#include "updater/manifest_signature.h"

namespace qor {
namespace {

namespace fs = std::filesystem;

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

Error badKeyFile(const fs::path& file, const std::string& why) {
  return Error{signingErrorDomain, signingBadKeyFile,
               "the signing key " + file.string() + " " + why};
}

// Creates `file` with `mode`; never replaces one.
Result<> writeNewFile(const fs::path& file, std::string_view contents, mode_t mode) {
  const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return systemError(errno, "cannot write " + file.string());
  const bool written =
      write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size());
  const int err = written ? (fsync(fd) == 0 ? 0 : errno) : (errno ? errno : EIO);
  close(fd);
  if (err != 0) {
    unlink(file.c_str());
    return systemError(err, "cannot write " + file.string());
  }
  return {};
}

// Never asks for a passphrase: an encrypted key is refused like any other
// key this tool cannot read.
int noPassphrase(char*, int, int, void*) {
  return -1;
}

}  // namespace

SigningKey::SigningKey(evp_pkey_st* key) : key_(key, EVP_PKEY_free) {}

Result<SigningKey> SigningKey::generate() {
  EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  if (!key) return Error{signingErrorDomain, signingCannotWrite, "cannot make an Ed25519 key"};
  return SigningKey(key);
}

Result<SigningKey> SigningKey::load(const fs::path& privateKeyFile) {
  std::error_code ec;
  if (!fs::is_regular_file(privateKeyFile, ec)) return badKeyFile(privateKeyFile, "is not a file");
  const auto pem = readTextFile(privateKeyFile);
  if (!pem) return badKeyFile(privateKeyFile, "cannot be read");
  const Bio bio(BIO_new_mem_buf(pem->data(), static_cast<int>(pem->size())), BIO_free);
  EVP_PKEY* key =
      bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassphrase, nullptr) : nullptr;
  if (!key || EVP_PKEY_get_id(key) != EVP_PKEY_ED25519) {
    EVP_PKEY_free(key);
    return badKeyFile(privateKeyFile, "is not an Ed25519 private key in PEM");
  }
  return SigningKey(key);
}

Result<> SigningKey::save(const fs::path& privateKeyFile, const fs::path& publicKeyFile) const {
  const Bio bio(BIO_new(BIO_s_mem()), BIO_free);
  char* pem = nullptr;
  if (!bio ||
      PEM_write_bio_PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return Error{signingErrorDomain, signingCannotWrite, "cannot encode the private key"};
  }
  const auto length = BIO_get_mem_data(bio.get(), &pem);
  if (std::error_code ec; fs::exists(publicKeyFile, ec) || ec) {
    return Error{signingErrorDomain, signingCannotWrite,
                 publicKeyFile.string() + " exists already; it is not replaced"};
  }
  if (auto written = writeNewFile(privateKeyFile, {pem, static_cast<std::size_t>(length)}, 0600);
      !written) {
    return written;
  }
  if (auto written = writeNewFile(publicKeyFile, publicKey() + "\n", 0644); !written) {
    unlink(privateKeyFile.c_str());
    return written;
  }
  return {};
}

std::string SigningKey::publicKey() const {
  std::string raw(ed25519PublicKeySize, '\0');
  std::size_t length = raw.size();
  EVP_PKEY_get_raw_public_key(key_.get(), reinterpret_cast<unsigned char*>(raw.data()), &length);
  raw.resize(length);
  return base64Encode(raw);
}

std::string SigningKey::keyId() const {
  return keyIdOf(base64Decode(publicKey()).value_or(""));
}

std::string SigningKey::signatureFor(std::string_view bytes) const {
  std::string signature(ed25519SignatureSize, '\0');
  std::size_t length = signature.size();
  const DigestContext context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  // Signing with a loaded Ed25519 key fails only without memory.
  if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
      EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                     reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) != 1) {
    throw std::bad_alloc();
  }
  return signatureFileText(keyId(), signature);
}

Result<QorManifest> writeSignedReleaseManifest(const ReleaseRequest& request,
                                               const fs::path& output, const SigningKey& key) {
  const fs::path unsigned_ = output.string() + ".unsigned";
  auto manifest = writeReleaseManifest(request, unsigned_);
  if (!manifest) return manifest;
  const auto bytes = readTextFile(unsigned_);
  Result<> done = bytes ? writeFileAtomically(output.string() + manifestSignatureSuffix,
                                              key.signatureFor(*bytes))
                        : systemError(EIO, "cannot read " + unsigned_.string());
  if (done && std::rename(unsigned_.c_str(), output.c_str()) != 0) {
    done = systemError(errno, "cannot write " + output.string());
  }
  if (!done) {
    std::error_code ignored;  // best effort: the staged manifest is only left over
    fs::remove(unsigned_, ignored);
    return done.error();
  }
  return manifest;
}

}  // namespace qor
