// The install script's exact text; install_hand_off_test.cpp runs it for real.
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
  };
  EXPECT_EQ(script.text(),
            "#!/bin/bash\n"
            "set -u\n"
            "PID=4242\n"
            "SRC='/tmp/qor-staging-Ab12Cd/QOR Velmora'\n"
            "DST='/home/ann/My Apps/QOR Velmora'\n"
            "MOUNT='/tmp/qor-staging-Ab12Cd'\n"
            "DMG='/home/ann/it'\\''s tmp/qor-update-1.tar.gz'\n"
            "LOG='/home/ann/.local/share/QOR Velmora/update.log'\n"
            "# wait for the running app to fully exit (max ~30s)\n"
            "i=0\n"
            "while kill -0 \"$PID\" 2>/dev/null; do\n"
            "  sleep 0.3; i=$((i+1)); [ $i -gt 100 ] && break\n"
            "done\n"
            "sleep 1\n"
            "{\n"
            "  echo \"[$(date)] updating $SRC -> $DST\"\n"
            "  rm -rf \"$DST\"\n"
            "  /bin/cp -a \"$SRC\" \"$DST\" && echo \"copy OK\" || echo \"copy FAILED\"\n"
            "  rm -rf \"$MOUNT\"\n"
            "  rm -f \"$DMG\"\n"
            "  /usr/bin/setsid -f \"$DST/bin/qor-velmora\" >/dev/null 2>&1 </dev/null\n"
            "  echo \"[$(date)] relaunched\"\n"
            "} >> \"$LOG\" 2>&1");
}

}  // namespace
}  // namespace qor::testing
