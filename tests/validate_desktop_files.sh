#!/bin/sh
# Checks the launcher and the store listing with the desktop's own validators;
# clean means not even a hint. Keys newer than this system's validators (the
# launcher's SingleMainWindow, the listing's <developer>) are checked here for
# their form, and the rest of each file by the validator.
#   validate_desktop_files.sh DESKTOP_FILE METAINFO_FILE
set -u
desktop=$1 metainfo=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

grep -qx 'SingleMainWindow=true' "$desktop" || { echo "$desktop: no SingleMainWindow=true"; status=1; }
grep -v '^SingleMainWindow=' "$desktop" >"$work/$(basename "$desktop")"
report=$(desktop-file-validate "$desktop" 2>&1) ||
  report=$(desktop-file-validate "$work/$(basename "$desktop")" 2>&1) || status=1
[ -z "$report" ] || { echo "$report"; status=1; }

grep -q '<developer id="[a-z0-9.-]*">' "$metainfo" || { echo "$metainfo: no <developer id>"; status=1; }
if ! appstreamcli validate --no-net --strict "$metainfo" >"$work/report" 2>&1; then
  if grep -q 'unknown-tag developer$' "$work/report"; then  # AppStream before 1.0
    sed '/<developer id=/,/<\/developer>/d' "$metainfo" >"$work/$(basename "$metainfo")"
    appstreamcli validate --no-net --strict "$work/$(basename "$metainfo")" || status=1
  else
    cat "$work/report"
    status=1
  fi
fi
exit $status
