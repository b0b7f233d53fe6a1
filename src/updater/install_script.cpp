#include "updater/install_script.h"

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

std::filesystem::path InstallScript::nextBundle() const {
  return destination.parent_path() / ("." + destination.filename().string() + ".update");
}

std::string InstallScript::text() const {
  const std::string lines[] = {
      "#!/bin/bash",
      "set -u",
      "umask 077",
      "PID=" + std::to_string(processId),
      "SRC=" + shellQuoted(newBundle),
      "DST=" + shellQuoted(destination),
      "NEXT=" + shellQuoted(nextBundle()),
      "VERSION=" + shellQuoted(version),
      "EXCHANGE=" + shellQuoted(exchangeTool),
      "MOUNT=" + shellQuoted(staging),
      "DMG=" + shellQuoted(image),
      "LOG=" + shellQuoted(log),
      "FAILED=" + shellQuoted(failureMark),
      "# wait for the running app to fully exit (max ~30s)",
      "i=0",
      "while kill -0 \"$PID\" 2>/dev/null; do",
      "  sleep 0.3; i=$((i+1)); [ $i -gt 100 ] && break",
      "done",
      "sleep 1",
      "# keeps the installed bundle and tells the next start",
      "fail() { echo \"copy FAILED: $1\"; rm -rf \"$NEXT\"; echo \"$VERSION\" > \"$FAILED\"; }",
      "{",
      "  echo \"[$(date)] updating $SRC -> $DST\"",
      "  rm -rf \"$NEXT\"",
      "  if ! /bin/cp -a \"$SRC\" \"$NEXT\"; then",
      "    fail \"cannot copy the new version next to $DST\"",
      "  elif [ ! -x \"$NEXT/bin/qor-velmora\" ]; then",
      "    fail \"the copy has no executable bin/qor-velmora\"",
      "  elif [ \"$(tr -d '[:space:]' < \"$NEXT/share/qor-velmora/APP_VERSION\")\" != \"$VERSION\" "
      "]; then",
      "    fail \"the copy's APP_VERSION is not $VERSION\"",
      "  elif ! \"$EXCHANGE\" \"$NEXT\" \"$DST\"; then",
      "    fail \"cannot swap the copy with $DST\"",
      "  else",
      "    echo \"copy OK\"",
      "    rm -rf \"$NEXT\"",
      "  fi",
      "  rm -rf \"$MOUNT\"",
      "  rm -f \"$DMG\"",
      // A session of its own, so the application outlives this script.
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
