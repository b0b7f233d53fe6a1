// What the kernel's process table says about listening sockets and command
// lines, read from /proc.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qor {

// For each of `ports` that a TCP socket listens on (IPv4 or IPv6), the ids of
// the processes holding such a socket, ascending. Ports nobody listens on are
// absent. Each socket table is read once, however many ports are asked for:
// every read walks the kernel's whole connection table.
std::map<int, std::vector<pid_t>> listenersOn(const std::vector<int>& ports);

// A listening TCP socket as one row of /proc/net/tcp or tcp6 describes it.
struct ListeningSocket {
  int port;
  uid_t owner;  // the account that opened it
  bool operator==(const ListeningSocket&) const = default;
};

// The sockets listening on one of `ports` in the text of /proc/net/tcp or
// tcp6 (a header line, then rows reading "sl local_address rem_address st
// ... uid timeout inode"), keyed by the link a process's descriptor for it
// reads as ("socket:[inode]"). Rows that do not read so are skipped.
std::map<std::string, ListeningSocket> listeningSocketsIn(std::string_view table,
                                                          const std::vector<int>& ports);

// Whether a TCP socket listening on `port` was opened by another account than
// this process's. The socket tables name each socket's owner, so this holds
// also where the other account's processes cannot be looked into.
bool listenedOnByAnotherUser(int port);

// The text of /proc/<pid>/cmdline (each argument followed by a NUL) as
// processCommand gives it.
std::string commandText(std::string_view cmdline);

// The process's arguments joined by single spaces and trimmed (empty for a
// kernel thread or a zombie); nothing when there is no such process.
std::optional<std::string> processCommand(pid_t pid);

}  // namespace qor
