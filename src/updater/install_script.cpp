#include "updater/install_script.h"

#include <initializer_list>
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

namespace {

// Expects PID: waits for the running application to exit (at most about 30 s).
constexpr const char* waitForProcess =
    "# wait for the running app to fully exit (max ~30s)\n"
    "i=0\n"
    "while kill -0 \"$PID\" 2>/dev/null; do\n"
    "  sleep 0.3; i=$((i+1)); [ $i -gt 100 ] && break\n"
    "done\n"
    "sleep 1";

// Expects DST: starts the bundle in a session of its own, so the
// application outlives the script, and logs it.
constexpr const char* relaunch =
    "  /usr/bin/setsid -f \"$DST/bin/qor-velmora\" >/dev/null 2>&1 </dev/null\n"
    "  echo \"[$(date)] relaunched\"";

std::string joinedLines(std::initializer_list<std::string> lines) {
  std::string script;
  for (const auto& line : lines) {
    if (!script.empty()) script += '\n';
    script += line;
  }
  return script;
}

}  // namespace

std::filesystem::path InstallScript::nextBundle() const {
  return destination.parent_path() / ("." + destination.filename().string() + ".update");
}

std::string InstallScript::text() const {
  return joinedLines({
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
      waitForProcess,
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
      relaunch,
      "} >> \"$LOG\" 2>&1",
  });
}

std::string RelaunchScript::text() const {
  return joinedLines({
      "#!/bin/bash",
      "set -u",
      "PID=" + std::to_string(processId),
      "DST=" + shellQuoted(bundle),
      "LOG=" + shellQuoted(log),
      waitForProcess,
      "{",
      "  echo \"[$(date)] $DST updated by the system's package manager\"",
      relaunch,
      "} >> \"$LOG\" 2>&1",
  });
}

}  // namespace qor
