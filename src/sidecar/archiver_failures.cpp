#include "sidecar/archiver_failures.h"

#include "base/files.h"

namespace qor {
namespace {

constexpr const char* diskFull = "the disk is full";
constexpr int unzipDiskFull = 50;
constexpr int zipWriteError = 14;
constexpr int zipCreateError = 15;

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
  return !ec && space.available < sizeOfFolder(source);
}

}  // namespace qor
