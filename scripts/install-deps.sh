#!/usr/bin/env bash
# Installs the Debian packages the project needs to build, run and test;
# with --bench also those the benchmarks measure against and read the window
# with. Does nothing when every package is already present.
set -euo pipefail

packages=(
  # toolchain and test framework
  g++ cmake make pkg-config libgtest-dev libgmock-dev clang-format
  # the fuzz targets' compiler, with libFuzzer and the sanitizers
  clang
  # libraries
  libgtk-4-dev libwebkitgtk-6.0-dev libcurl4-openssl-dev libssl-dev nlohmann-json3-dev
  # tools the shell runs, and the runtime it packs
  unzip zip tar python3
  # headless display, accessibility and fonts for the window tests
  xvfb xauth dbus dbus-x11 at-spi2-core python3-pyatspi python3-gi gir1.2-atspi-2.0
  fonts-wqy-microhei imagemagick openssl xdotool x11-utils
  # packaging and its checker, icons drawn from the SVG, and the desktop files' validators
  dpkg-dev desktop-file-utils appstream lintian librsvg2-bin xz-utils binutils
)
bench_packages=(
  # what people use instead, the X client that sees the window map, the tools timed against
  chromium surf python3-xlib lsof curl iproute2
)
[ "${1:-}" = --bench ] && packages+=("${bench_packages[@]}")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
echo "Installing: ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
