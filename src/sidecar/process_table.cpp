#include "sidecar/process_table.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "base/files.h"
#include "base/text.h"

namespace qor {
namespace {

constexpr std::string_view listenState = "0A";

// Inodes of listening sockets on `port` in one of /proc/net/tcp and tcp6,
// whose rows read "sl local_address rem_address st ... uid timeout inode".
void collectListeningInodes(const char* table, int port, std::set<std::string>& inodes) {
  std::ifstream in(table);
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
    if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
          timeout >> inode)) {
      continue;
    }
    const auto colon = local.rfind(':');
    if (colon == std::string::npos || state != listenState) continue;
    int localPort = 0;
    const auto hex = std::string_view(local).substr(colon + 1);
    const auto parsed = std::from_chars(hex.data(), hex.data() + hex.size(), localPort, 16);
    if (parsed.ec == std::errc() && localPort == port && inode != "0") inodes.insert(inode);
  }
}

std::optional<pid_t> parsePid(const std::string& name) {
  pid_t pid = 0;
  const auto parsed = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (parsed.ec != std::errc() || parsed.ptr != name.data() + name.size()) return std::nullopt;
  return pid;
}

bool holdsAnySocket(pid_t pid, const std::set<std::string>& socketLinks) {
  std::error_code ec;
  const std::filesystem::path fdFolder = "/proc/" + std::to_string(pid) + "/fd";
  for (std::filesystem::directory_iterator it(fdFolder, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code linkError;
    const auto target = std::filesystem::read_symlink(it->path(), linkError);
    if (!linkError && socketLinks.contains(target.string())) return true;
  }
  return false;
}

}  // namespace

std::optional<std::vector<pid_t>> pidsListening(int port) {
  std::set<std::string> inodes;
  collectListeningInodes("/proc/net/tcp", port, inodes);
  collectListeningInodes("/proc/net/tcp6", port, inodes);
  if (inodes.empty()) return std::nullopt;

  std::set<std::string> socketLinks;
  for (const auto& inode : inodes) socketLinks.insert("socket:[" + inode + "]");
  std::vector<pid_t> pids;
  std::error_code ec;
  for (std::filesystem::directory_iterator it("/proc", ec), end; !ec && it != end;
       it.increment(ec)) {
    const auto pid = parsePid(it->path().filename().string());
    if (pid && holdsAnySocket(*pid, socketLinks)) pids.push_back(*pid);
  }
  if (pids.empty()) return std::nullopt;
  std::sort(pids.begin(), pids.end());
  return pids;
}

std::optional<std::string> processCommand(pid_t pid) {
  auto arguments = readTextFile("/proc/" + std::to_string(pid) + "/cmdline");
  if (!arguments) return std::nullopt;
  std::replace(arguments->begin(), arguments->end(), '\0', ' ');
  return trimmed(*arguments);
}

}  // namespace qor
