// Before the runtime is replaced by another version, the user's data folder
// is zipped into data-backups, keeping the three newest archives.
#include <algorithm>
#include <ctime>
#include <vector>

#include "base/files.h"
#include "sidecar/sidecar_manager.h"

namespace qor {
namespace {

constexpr size_t backupsKept = 3;

std::string timeStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
  return text;
}

std::string safeVersion(std::string version) {
  std::replace(version.begin(), version.end(), '/', '_');
  return version;
}

// Archives are only "*.zip" entries that are not hidden, newest first; an
// entry whose date cannot be read counts as the oldest.
std::vector<std::filesystem::path> backupsNewestFirst(const std::filesystem::path& folder) {
  struct Entry {
    std::filesystem::path path;
    std::filesystem::file_time_type modified;
  };
  std::vector<Entry> entries;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
       it.increment(ec)) {
    const auto name = it->path().filename().string();
    if (name.starts_with(".") || it->path().extension() != ".zip") continue;
    std::error_code timeError;
    auto modified = std::filesystem::last_write_time(it->path(), timeError);
    if (timeError) modified = std::filesystem::file_time_type::min();
    entries.push_back({it->path(), modified});
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const Entry& a, const Entry& b) { return a.modified > b.modified; });
  std::vector<std::filesystem::path> paths;
  for (auto& entry : entries) paths.push_back(std::move(entry.path));
  return paths;
}

}  // namespace

void SidecarManager::backupDataBeforeUpgrade(const std::string& fromVersion) {
  // Best effort throughout: a backup problem never stops an upgrade.
  const auto data = dataDirectory();
  std::error_code ec;
  if (!std::filesystem::exists(std::filesystem::symlink_status(data, ec))) return;
  const auto backups = runtimeRoot("data-backups");
  (void)makePrivateFolder(backups);

  // Written under a hidden name and renamed when complete, so a failed run
  // leaves no half-written archive among the backups.
  const auto name = "data-" + safeVersion(fromVersion) + "-" + timeStamp() + ".zip";
  const auto partial = backups / ("." + name);
  std::filesystem::remove(partial, ec);
  const auto zipped = ChildProcess::run({
      .executable = "/usr/bin/zip",
      .arguments = {"-q", "-r", "-y", partial.string(), "data"},
      .workingDirectory = productFolder(),
  });
  if (zipped && *zipped == 0) {
    std::filesystem::permissions(partial, privateFileMode, ec);
    std::filesystem::rename(partial, backups / name, ec);
  } else {
    std::filesystem::remove(partial, ec);
  }

  const auto archives = backupsNewestFirst(backups);
  for (size_t i = backupsKept; i < archives.size(); ++i) std::filesystem::remove(archives[i], ec);
}

}  // namespace qor
