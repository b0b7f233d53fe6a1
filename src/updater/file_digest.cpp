#include "updater/file_digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace qor {
namespace {

struct ClosedOnExit {
  int fd;
  ~ClosedOnExit() { close(fd); }
};

}  // namespace

Result<std::string> sha256OfFile(const std::filesystem::path& file) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return systemError(errno, "cannot open " + file.string());
  const ClosedOnExit closer{fd};
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    return Error{"OpenSSL", 0, "SHA-256 is not available"};
  }
  std::vector<unsigned char> buffer(1 << 20);
  for (;;) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return systemError(errno, "cannot read " + file.string());
    if (got == 0) break;
    EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(got));
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context.get(), digest, &length);
  constexpr char hex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += hex[digest[i] >> 4];
    text += hex[digest[i] & 0x0F];
  }
  return text;
}

}  // namespace qor
