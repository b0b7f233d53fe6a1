#!/bin/sh
# Checks the Debian package with lintian: no error but the ones living in /opt
# brings, and none of the informational findings a packager would still fix
# (hardening, checksums).
#   lint_debian_package.sh PACKAGES_FOLDER
set -u
deb=$(ls "$1"/qor-velmora_*.deb) || exit 1
report=$(lintian --tag-display-limit 0 --display-info --suppress-tags dir-or-file-in-opt "$deb" 2>&1)
status=$?
echo "$report"
[ $status -eq 0 ] || exit 1
! echo "$report" | grep -E '^E: |hardening-no-|no-md5sums-control-file'
