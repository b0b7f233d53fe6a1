#include "updater/install_preflight.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "base/files.h"

namespace qor {
namespace {

// Room left beside the copy, so the update does not fill the disk to the brim.
constexpr std::uintmax_t spaceMargin = 64u << 20;

}  // namespace

bool canReplaceBundle(const std::filesystem::path& bundle) {
  std::error_code ec;
  if (std::filesystem::exists(bundle / "share" / "qor-velmora" / packageManagedMark, ec)) {
    return false;
  }
  return access(bundle.c_str(), W_OK) == 0 && access(bundle.parent_path().c_str(), W_OK) == 0;
}

InstallPreflight checkInstallPreflight(const std::filesystem::path& bundle,
                                       std::uintmax_t imageSize) {
  if (!canReplaceBundle(bundle)) return {.outcome = InstallPreflight::Outcome::notReplaceable};
  struct statvfs disk {};
  // A filesystem that cannot be asked is not refused here: the script checks its copy.
  if (statvfs(bundle.parent_path().c_str(), &disk) != 0) return {};
  const std::uintmax_t available = std::uintmax_t(disk.f_bavail) * disk.f_frsize;
  const std::uintmax_t needed = std::max(sizeOfFolder(bundle), imageSize) + spaceMargin;
  if (available >= needed) return {};
  return {.outcome = InstallPreflight::Outcome::lowSpace,
          .neededBytes = needed,
          .availableBytes = available};
}

}  // namespace qor
