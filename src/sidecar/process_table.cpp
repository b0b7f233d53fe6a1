#include "sidecar/process_table.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <future>
#include <set>
#include <sstream>

#include "base/files.h"
#include "base/text.h"

namespace qor {
namespace {

constexpr std::string_view listenState = "0A";

// Socket links ("socket:[inode]") of the listening sockets on `ports`.
using ListeningSockets = std::map<std::string, ListeningSocket>;

ListeningSockets socketTable(const char* table, const std::vector<int>& ports) {
  const auto text = readTextFile(table);
  return text ? listeningSocketsIn(*text, ports) : ListeningSockets{};
}

std::optional<pid_t> parsePid(const std::string& name) {
  pid_t pid = 0;
  const auto parsed = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (parsed.ec != std::errc() || parsed.ptr != name.data() + name.size()) return std::nullopt;
  return pid;
}

// Adds `pid` under the port of each listening socket it holds.
void collectHolder(pid_t pid, const ListeningSockets& sockets,
                   std::map<int, std::set<pid_t>>& holders) {
  std::error_code ec;
  const std::filesystem::path fdFolder = "/proc/" + std::to_string(pid) + "/fd";
  for (std::filesystem::directory_iterator it(fdFolder, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code linkError;
    const auto target = std::filesystem::read_symlink(it->path(), linkError);
    if (linkError) continue;
    if (const auto socket = sockets.find(target.string()); socket != sockets.end()) {
      holders[socket->second.port].insert(pid);
    }
  }
}

// Each read of either table walks the kernel's whole connection hash, a
// couple of milliseconds on a machine with much memory; the two walks run
// side by side.
ListeningSockets listeningSockets(const std::vector<int>& ports) {
  auto version6 = std::async(std::launch::async, socketTable, "/proc/net/tcp6", ports);
  ListeningSockets sockets = socketTable("/proc/net/tcp", ports);
  sockets.merge(version6.get());
  return sockets;
}

}  // namespace

ListeningSockets listeningSocketsIn(std::string_view table, const std::vector<int>& ports) {
  ListeningSockets sockets;
  std::istringstream in{std::string(table)};
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
    if (colon == std::string::npos || state != listenState || inode == "0") continue;
    int localPort = 0;
    uid_t owner = 0;
    const auto hex = std::string_view(local).substr(colon + 1);
    const auto parsed = std::from_chars(hex.data(), hex.data() + hex.size(), localPort, 16);
    const auto parsedOwner = std::from_chars(uid.data(), uid.data() + uid.size(), owner);
    if (parsed.ec == std::errc() && parsedOwner.ec == std::errc() &&
        std::ranges::find(ports, localPort) != ports.end()) {
      sockets.emplace("socket:[" + inode + "]", ListeningSocket{localPort, owner});
    }
  }
  return sockets;
}

std::map<int, std::vector<pid_t>> listenersOn(const std::vector<int>& ports) {
  const ListeningSockets sockets = listeningSockets(ports);
  if (sockets.empty()) return {};

  std::map<int, std::set<pid_t>> holders;
  std::error_code ec;
  for (std::filesystem::directory_iterator it("/proc", ec), end; !ec && it != end;
       it.increment(ec)) {
    if (const auto pid = parsePid(it->path().filename().string())) {
      collectHolder(*pid, sockets, holders);
    }
  }
  std::map<int, std::vector<pid_t>> listeners;
  for (const auto& [port, pids] : holders) listeners[port].assign(pids.begin(), pids.end());
  return listeners;
}

bool listenedOnByAnotherUser(int port) {
  const uid_t self = geteuid();
  return std::ranges::any_of(listeningSockets({port}),
                             [self](const auto& socket) { return socket.second.owner != self; });
}

std::string commandText(std::string_view cmdline) {
  std::string arguments(cmdline);
  std::replace(arguments.begin(), arguments.end(), '\0', ' ');
  return trimmed(arguments);
}

std::optional<std::string> processCommand(pid_t pid) {
  const auto arguments = readTextFile("/proc/" + std::to_string(pid) + "/cmdline");
  if (!arguments) return std::nullopt;
  return commandText(*arguments);
}

}  // namespace qor
