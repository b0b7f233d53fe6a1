// Before the runtime is replaced by another version, the user's data folder
// is zipped into data-backups, keeping the three newest archives. An archive
// becomes visible only when complete; without one there is no upgrade.
#include <algorithm>
#include <ctime>
#include <regex>
#include <vector>

#include "base/files.h"
#include "sidecar/archiver_failures.h"
#include "sidecar/sidecar_manager.h"

namespace qor {
namespace {

constexpr size_t backupsKept = 3;
// Holds the archive being written and zip's own temporary files.
constexpr const char* partialFolderName = ".partial";

Error backupError(const std::string& detail) {
  return qorError(5, "Data backup before the upgrade failed (" + detail +
                         "); the installed runtime is kept until a backup succeeds");
}

// What an interrupted backup leaves: the partial folder, and from earlier
// versions a hidden archive or zip's "zi" temporary file beside the archives.
void removeLeftovers(const std::filesystem::path& backups) {
  static const std::regex leftover(R"(\.partial|\.data-.*\.zip|zi[A-Za-z0-9]{6})");
  std::vector<std::filesystem::path> found;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(backups, ec), end; !ec && it != end;
       it.increment(ec)) {
    if (std::regex_match(it->path().filename().string(), leftover)) found.push_back(it->path());
  }
  for (const auto& path : found) std::filesystem::remove_all(path, ec);  // retried next time
}

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

Result<> SidecarManager::backupDataBeforeUpgrade(const std::string& fromVersion) {
  const auto data = dataDirectory();
  std::error_code ec;
  if (!std::filesystem::exists(std::filesystem::symlink_status(data, ec))) return {};
  const auto backups = runtimeRoot("data-backups");
  if (auto made = makePrivateFolder(backups); !made) return backupError(made.error().description);
  removeLeftovers(backups);
  const auto partialFolder = backups / partialFolderName;
  if (std::filesystem::create_directories(partialFolder, ec); ec) {
    return backupError(systemError(ec, "cannot create " + partialFolder.string()).description);
  }

  // Written, with zip's temporary files, in the partial folder and moved
  // beside the other archives when complete.
  const auto name = "data-" + safeVersion(fromVersion) + "-" + timeStamp() + ".zip";
  const auto partial = partialFolder / name;
  const auto zipped = ChildProcess::run({
      .executable = "/usr/bin/zip",
      .arguments = {"-q", "-r", "-y", "-b", partialFolder.string(), partial.string(), "data"},
      .workingDirectory = productFolder(),
  });
  if (!zipped || *zipped != 0) {
    std::filesystem::remove_all(partialFolder, ec);  // frees the room zip took
    return backupError(zipped ? zipFailure(*zipped, data, backups) : zipped.error().description);
  }
  std::filesystem::permissions(partial, privateFileMode, ec);
  std::filesystem::rename(partial, backups / name, ec);
  if (ec) return backupError(systemError(ec, "cannot move " + partial.string()).description);
  std::filesystem::remove_all(partialFolder, ec);  // empty by now; retried next time

  // Pruning is best effort: an extra old archive costs only space.
  const auto archives = backupsNewestFirst(backups);
  for (size_t i = backupsKept; i < archives.size(); ++i) std::filesystem::remove(archives[i], ec);
  return {};
}

}  // namespace qor
