// What the kernel says about listening sockets (its socket diagnostics) and
// about processes (/proc): who listens on a port, and with what command line.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace qor {

// Ids of the processes holding a TCP socket that listens on `port` (IPv4 or
// IPv6), ascending; nothing when none does or /proc cannot be read.
std::optional<std::vector<pid_t>> pidsListening(int port);

// The process's arguments joined by single spaces and trimmed (empty for a
// kernel thread or a zombie); nothing when there is no such process.
std::optional<std::string> processCommand(pid_t pid);

}  // namespace qor
