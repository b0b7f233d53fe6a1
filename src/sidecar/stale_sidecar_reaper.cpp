#include "sidecar/stale_sidecar_reaper.h"

#include <csignal>
#include <string>

#include "sidecar/process_table.h"

namespace qor {
namespace {

constexpr int waitPasses = 20;
constexpr ScaledClock::Seconds passPause{0.1};
constexpr ScaledClock::Seconds settlePause{0.3};

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

struct StaleSidecar {
  pid_t pid;
  int port;
  std::string command;
};

// The processes of ours listening on `ports`, port by port.
std::vector<StaleSidecar> oursListening(const std::vector<int>& ports) {
  const auto listeners = listenersOn(ports);
  std::vector<StaleSidecar> found;
  for (const int port : ports) {
    const auto listening = listeners.find(port);
    if (listening == listeners.end()) continue;
    for (const pid_t pid : listening->second) {
      const auto command = processCommand(pid);
      if (command && isOurSidecar(*command)) found.push_back({pid, port, *command});
    }
  }
  return found;
}

}  // namespace

bool isOurSidecar(std::string_view command) {
  const bool gatewayOrLitellm = contains(command, "qor_gateway.main") ||
                                contains(command, "-m qor_gateway") ||
                                (contains(command, "python") && contains(command, "litellm"));
  if (contains(command, "QOR Velmora")) return gatewayOrLitellm;
  return gatewayOrLitellm && contains(command, "QOR_DATA_DIR");
}

void reapStaleSidecars(const std::vector<int>& ports, const ScaledClock& clock,
                       const DiagnosticSink& diagnostics) {
  const auto stale = oursListening(ports);
  for (const auto& [pid, port, command] : stale) {
    diagnostics("[sidecar] reaping stale sidecar pid=" + std::to_string(pid) + " on port " +
                std::to_string(port) + ": " + command + "\n");
    ::kill(pid, SIGTERM);
  }
  if (stale.empty()) return;  // nothing to wait for
  for (int pass = 0; pass < waitPasses; ++pass) {
    if (oursListening(ports).empty()) return;
    clock.sleepFor(passPause);
  }
  for (const auto& left : oursListening(ports)) ::kill(left.pid, SIGKILL);
  clock.sleepFor(settlePause);
}

}  // namespace qor
