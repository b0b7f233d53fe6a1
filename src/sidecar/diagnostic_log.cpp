#include "sidecar/diagnostic_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "base/files.h"

namespace qor {
namespace {

std::filesystem::path numbered(const std::filesystem::path& file, int number) {
  return file.string() + "." + std::to_string(number);
}

}  // namespace

DiagnosticLog::DiagnosticLog(std::filesystem::path folder, std::uintmax_t fileLimit)
    : folder_(std::move(folder)), fileLimit_(fileLimit) {}

DiagnosticLog::~DiagnosticLog() {
  if (fd_ >= 0) close(fd_);
}

void DiagnosticLog::append(std::string_view bytes) {
  std::lock_guard lock(mutex_);
  if (!openIfNeeded()) return;
  if (size_ > 0 && size_ + bytes.size() > fileLimit_) {
    rotate();
    if (!openIfNeeded()) return;
  }
  while (!bytes.empty()) {
    const ssize_t written = write(fd_, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // a full disk costs the log these bytes, nothing more
    bytes.remove_prefix(static_cast<size_t>(written));
    size_ += static_cast<std::uintmax_t>(written);
  }
}

bool DiagnosticLog::openIfNeeded() {
  if (fd_ >= 0) return true;
  if (!makePrivateFolder(folder_)) return false;
  fd_ = open((folder_ / fileName).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
             S_IRUSR | S_IWUSR);
  if (fd_ < 0) return false;
  fchmod(fd_, S_IRUSR | S_IWUSR);  // also a file an older version left readable
  struct stat status {};
  size_ = fstat(fd_, &status) == 0 ? static_cast<std::uintmax_t>(status.st_size) : 0;
  return true;
}

void DiagnosticLog::rotate() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  size_ = 0;
  const auto current = folder_ / fileName;
  std::error_code ec;  // a file that cannot move is simply overwritten or kept
  for (int number = olderFilesKept; number > 1; --number) {
    std::filesystem::rename(numbered(current, number - 1), numbered(current, number), ec);
  }
  std::filesystem::rename(current, numbered(current, 1), ec);
}

DiagnosticSink logAndStandardError(const std::filesystem::path& folder) {
  return [log = std::make_shared<DiagnosticLog>(folder)](std::string_view bytes) {
    log->append(bytes);
    writeToStandardError(bytes);
  };
}

}  // namespace qor
