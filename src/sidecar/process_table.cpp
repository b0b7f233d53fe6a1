#include "sidecar/process_table.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>

#include "base/files.h"
#include "base/text.h"

namespace qor {
namespace {

// Asks the socket diagnostics netlink socket `fd` for the TCP sockets of
// `family` in the listening state, and adds "socket:[inode]" for those on
// `port`. A dump of listening sockets reads only the kernel's listening table,
// where /proc/net/tcp walks every connection slot on each read (milliseconds
// on a machine with much memory).
void queryListeningSockets(int fd, int family, int port, std::set<std::string>& socketLinks) {
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } query{};
  query.header.nlmsg_len = sizeof query;
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  query.request.sdiag_family = static_cast<std::uint8_t>(family);
  query.request.sdiag_protocol = IPPROTO_TCP;
  query.request.idiag_states = 1U << TCP_LISTEN;
  if (send(fd, &query, sizeof query, 0) != static_cast<ssize_t>(sizeof query)) return;

  alignas(nlmsghdr) char buffer[32 * 1024];
  for (;;) {
    const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;
    const auto size = static_cast<size_t>(got);
    for (size_t offset = 0; offset + sizeof(nlmsghdr) <= size;) {
      nlmsghdr header;
      std::memcpy(&header, buffer + offset, sizeof header);
      if (header.nlmsg_len < sizeof header || offset + header.nlmsg_len > size) return;
      if (header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) return;
      inet_diag_msg socketInfo;
      if (header.nlmsg_len >= NLMSG_LENGTH(sizeof socketInfo)) {
        std::memcpy(&socketInfo, buffer + offset + NLMSG_HDRLEN, sizeof socketInfo);
        if (ntohs(socketInfo.id.idiag_sport) == port && socketInfo.idiag_inode != 0) {
          socketLinks.insert("socket:[" + std::to_string(socketInfo.idiag_inode) + "]");
        }
      }
      offset += NLMSG_ALIGN(header.nlmsg_len);
    }
  }
}

// A family the kernel cannot report adds nothing.
void collectListeningSockets(int family, int port, std::set<std::string>& socketLinks) {
  const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (fd < 0) return;
  queryListeningSockets(fd, family, port, socketLinks);
  close(fd);
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
  std::set<std::string> socketLinks;
  collectListeningSockets(AF_INET, port, socketLinks);
  collectListeningSockets(AF_INET6, port, socketLinks);
  if (socketLinks.empty()) return std::nullopt;

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
