#include "sidecar/stale_sidecar_reaper.h"

#include <csignal>
#include <optional>
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

// Calls `visit(pid, command)` for each process of ours listening on `port`.
template <typename Visit>
void forEachOursListening(int port, Visit visit) {
  const auto pids = pidsListening(port);
  if (!pids) return;
  for (const pid_t pid : *pids) {
    const auto command = processCommand(pid);
    if (command && isOurSidecar(*command)) visit(pid, *command);
  }
}

bool anyOursListening(const std::vector<int>& ports) {
  bool found = false;
  for (const int port : ports)
    forEachOursListening(port, [&](pid_t, const std::string&) { found = true; });
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
  for (const int port : ports) {
    forEachOursListening(port, [&](pid_t pid, const std::string& command) {
      diagnostics("[sidecar] reaping stale sidecar pid=" + std::to_string(pid) + " on port " +
                  std::to_string(port) + ": " + command + "\n");
      ::kill(pid, SIGTERM);
    });
  }
  for (int pass = 0; pass < waitPasses; ++pass) {
    if (!anyOursListening(ports)) return;
    clock.sleepFor(passPause);
  }
  for (const int port : ports) {
    forEachOursListening(port, [](pid_t pid, const std::string&) { ::kill(pid, SIGKILL); });
  }
  clock.sleepFor(settlePause);
}

}  // namespace qor
