#include "sidecar/archiver_failures.h"

#include <cstdint>

namespace qor {
namespace {

constexpr const char* diskFull = "the disk is full";
constexpr int unzipDiskFull = 50;
constexpr int zipWriteError = 14;
constexpr int zipCreateError = 15;

std::uintmax_t bytesUnder(const std::filesystem::path& source) {
  std::uintmax_t total = 0;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(source, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code sizeError;
    if (it->is_regular_file(sizeError)) {
      const auto size = it->file_size(sizeError);
      if (!sizeError) total += size;
    }
  }
  return total;
}

}  // namespace

std::string extractionFailure(int unzipStatus) {
  std::string text = "Runtime extraction failed (unzip " + std::to_string(unzipStatus) + ")";
  if (unzipStatus == unzipDiskFull) text += std::string(": ") + diskFull;
  return text;
}

std::string zipFailure(int zipStatus, const std::filesystem::path& source,
                       const std::filesystem::path& archiveFolder) {
  std::string text = "zip " + std::to_string(zipStatus);
  if (zipStatus != zipWriteError && zipStatus != zipCreateError) return text;
  return text + ", " +
         (lacksRoomFor(source, archiveFolder) ? diskFull : "the archive could not be written");
}

bool lacksRoomFor(const std::filesystem::path& source, const std::filesystem::path& folder) {
  std::error_code ec;
  const auto space = std::filesystem::space(folder, ec);
  return !ec && space.available < bytesUnder(source);
}

}  // namespace qor
