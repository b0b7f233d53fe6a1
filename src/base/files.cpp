#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace qor {

std::optional<std::string> readTextFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream contents;
  contents << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return std::move(contents).str();
}

Result<> writeFileAtomically(const std::filesystem::path& path, std::string_view contents,
                             mode_t mode) {
  std::string temporary = path.string() + ".XXXXXX";
  const int fd = mkstemp(temporary.data());
  if (fd < 0) return systemError(errno, "cannot write " + path.string());
  const char* data = contents.data();
  size_t left = contents.size();
  while (left > 0) {
    const ssize_t written = write(fd, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      const int err = errno;
      close(fd);
      unlink(temporary.c_str());
      return systemError(err, "cannot write " + path.string());
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
  fchmod(fd, mode);
  int err = fsync(fd) == 0 ? 0 : errno;
  if (close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && rename(temporary.c_str(), path.c_str()) != 0) err = errno;
  if (err != 0) {
    unlink(temporary.c_str());
    return systemError(err, "cannot write " + path.string());
  }
  return {};
}

Result<> makePrivateFolder(const std::filesystem::path& path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  if (!ec) std::filesystem::permissions(path, std::filesystem::perms::owner_all, ec);
  if (ec) return systemError(ec, "cannot create " + path.string());
  return {};
}

std::uintmax_t sizeOfFolder(const std::filesystem::path& folder) {
  std::uintmax_t total = 0;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(folder, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code ignored;
    if (it->is_regular_file(ignored) && !it->is_symlink(ignored)) {
      const auto size = it->file_size(ignored);
      if (!ignored) total += size;
    }
  }
  return total;
}

}  // namespace qor
