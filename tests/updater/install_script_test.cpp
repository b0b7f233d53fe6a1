// The install script's exact text; install_hand_off_test.cpp and
// install_failure_test.cpp run it for real.
#include "updater/install_script.h"
#include "updater_test_support.h"

namespace qor::testing {
namespace {

TEST(UpdateInstallScript, TextIsTheFixedScriptWithQuotedPaths) {
  const InstallScript script{
      .processId = 4242,
      .newBundle = "/tmp/qor-staging-Ab12Cd/QOR Velmora",
      .destination = "/home/ann/My Apps/QOR Velmora",
      .staging = "/tmp/qor-staging-Ab12Cd",
      .image = "/home/ann/it's tmp/qor-update-1.tar.gz",
      .log = "/home/ann/.local/share/QOR Velmora/update.log",
      .version = "1.1.0",
      .exchangeTool = "/home/ann/My Apps/QOR Velmora/lib/qor-velmora/qor-exchange",
      .failureMark = "/home/ann/.local/share/QOR Velmora/update-failed",
  };
  EXPECT_EQ(
      script.text(),
      "#!/bin/bash\n"
      "set -u\n"
      "umask 077\n"
      "PID=4242\n"
      "SRC='/tmp/qor-staging-Ab12Cd/QOR Velmora'\n"
      "DST='/home/ann/My Apps/QOR Velmora'\n"
      "NEXT='/home/ann/My Apps/.QOR Velmora.update'\n"
      "VERSION='1.1.0'\n"
      "EXCHANGE='/home/ann/My Apps/QOR Velmora/lib/qor-velmora/qor-exchange'\n"
      "MOUNT='/tmp/qor-staging-Ab12Cd'\n"
      "DMG='/home/ann/it'\\''s tmp/qor-update-1.tar.gz'\n"
      "LOG='/home/ann/.local/share/QOR Velmora/update.log'\n"
      "FAILED='/home/ann/.local/share/QOR Velmora/update-failed'\n"
      "# wait for the running app to fully exit (max ~30s)\n"
      "i=0\n"
      "while kill -0 \"$PID\" 2>/dev/null; do\n"
      "  sleep 0.3; i=$((i+1)); [ $i -gt 100 ] && break\n"
      "done\n"
      "sleep 1\n"
      "# keeps the installed bundle and tells the next start\n"
      "fail() { echo \"copy FAILED: $1\"; rm -rf \"$NEXT\"; echo \"$VERSION\" > \"$FAILED\"; }\n"
      "{\n"
      "  echo \"[$(date)] updating $SRC -> $DST\"\n"
      "  rm -rf \"$NEXT\"\n"
      "  if ! /bin/cp -a \"$SRC\" \"$NEXT\"; then\n"
      "    fail \"cannot copy the new version next to $DST\"\n"
      "  elif [ ! -x \"$NEXT/bin/qor-velmora\" ]; then\n"
      "    fail \"the copy has no executable bin/qor-velmora\"\n"
      "  elif [ \"$(tr -d '[:space:]' < \"$NEXT/share/qor-velmora/APP_VERSION\")\" != "
      "\"$VERSION\" ]; then\n"
      "    fail \"the copy's APP_VERSION is not $VERSION\"\n"
      "  elif ! \"$EXCHANGE\" \"$NEXT\" \"$DST\"; then\n"
      "    fail \"cannot swap the copy with $DST\"\n"
      "  else\n"
      "    echo \"copy OK\"\n"
      "    rm -rf \"$NEXT\"\n"
      "  fi\n"
      "  rm -rf \"$MOUNT\"\n"
      "  rm -f \"$DMG\"\n"
      "  /usr/bin/setsid -f \"$DST/bin/qor-velmora\" >/dev/null 2>&1 </dev/null\n"
      "  echo \"[$(date)] relaunched\"\n"
      "} >> \"$LOG\" 2>&1");
}

}  // namespace
}  // namespace qor::testing
