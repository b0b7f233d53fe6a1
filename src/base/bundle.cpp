#include "base/bundle.h"

namespace qor {

std::filesystem::path bundleRoot() {
  std::error_code ec;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", ec);
  return executable.parent_path().parent_path();
}

std::filesystem::path bundleResourceDirectory() {
  return bundleRoot() / "share" / "qor-velmora";
}

}  // namespace qor
