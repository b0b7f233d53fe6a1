#include "updater/install_script.h"

#include <array>
#include <string_view>

namespace qor {

std::string shellQuoted(const std::filesystem::path& path) {
  std::string quoted = "'";
  for (const char c : path.string()) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string InstallScript::text() const {
  const std::array<std::string, 23> lines = {
      "#!/bin/bash",
      "set -u",
      "PID=" + std::to_string(processId),
      "SRC=" + shellQuoted(newBundle),
      "DST=" + shellQuoted(destination),
      "MOUNT=" + shellQuoted(staging),
      "DMG=" + shellQuoted(image),
      "LOG=" + shellQuoted(log),
      "# wait for the running app to fully exit (max ~30s)",
      "i=0",
      "while kill -0 \"$PID\" 2>/dev/null; do",
      "  sleep 0.3; i=$((i+1)); [ $i -gt 100 ] && break",
      "done",
      "sleep 1",
      "{",
      "  echo \"[$(date)] updating $SRC -> $DST\"",
      "  rm -rf \"$DST\"",
      "  /bin/cp -a \"$SRC\" \"$DST\" && echo \"copy OK\" || echo \"copy FAILED\"",
      "  rm -rf \"$MOUNT\"",
      "  rm -f \"$DMG\"",
      // A session of its own, so the new application outlives this script.
      "  /usr/bin/setsid -f \"$DST/bin/qor-velmora\" >/dev/null 2>&1 </dev/null",
      "  echo \"[$(date)] relaunched\"",
      "} >> \"$LOG\" 2>&1",
  };
  std::string script;
  for (const auto& line : lines) {
    if (!script.empty()) script += '\n';
    script += line;
  }
  return script;
}

}  // namespace qor
