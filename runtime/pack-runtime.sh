#!/bin/bash
# Packs the reference gateway with a Python environment of this machine's Python 3
# into the runtime archive the application bundle ships:
#   python/bin/python        -> /usr/bin/python3, made a virtual environment by python/pyvenv.cfg
#   sidecar/qor_gateway/...  the gateway package, with its RUNTIME_VERSION
#   QOR_RUNTIME_VERSION      the runtime version, no trailing newline
# The archive appears at OUTPUT whole or not at all.
set -euo pipefail

readonly PYTHON=/usr/bin/python3

if [[ $# -ne 3 ]]; then
  echo "usage: $0 OUTPUT.zip VERSION SOURCE_DIR (the folder holding qor_gateway/)" >&2
  exit 2
fi
output=$1 version=$2 source=$3
if [[ -z $version || $version == *[[:space:]]* ]]; then
  echo "$0: the version must be one word, got '$version'" >&2
  exit 2
fi
if [[ ! -f $source/qor_gateway/main.py ]]; then
  echo "$0: no gateway package in '$source' (missing qor_gateway/main.py)" >&2
  exit 2
fi

output_dir=$(cd "$(dirname "$output")" && pwd)
output="$output_dir/$(basename "$output")"
stage=$(mktemp -d)
partial="$output_dir/.$(basename "$output").$$.partial.zip"
trap 'rm -rf "$stage" "$partial"' EXIT

mkdir -p "$stage/python/bin" "$stage/sidecar"
ln -s "$PYTHON" "$stage/python/bin/python"
python_version=$("$PYTHON" -c 'import platform; print(platform.python_version())')
printf 'home = %s\ninclude-system-site-packages = false\nversion = %s\n' \
  "$(dirname "$PYTHON")" "$python_version" >"$stage/python/pyvenv.cfg"
# The interpreter must start and take the environment as its own prefix.
"$stage/python/bin/python" -c 'import sys; sys.exit(sys.prefix == sys.base_prefix)'

cp -R "$source/qor_gateway" "$stage/sidecar/"
find "$stage/sidecar" \( -name __pycache__ -o -name '*.pyc' \) -prune -exec rm -rf {} +
printf '%s' "$version" >"$stage/sidecar/qor_gateway/RUNTIME_VERSION"
printf '%s' "$version" >"$stage/QOR_RUNTIME_VERSION"

(cd "$stage" && /usr/bin/zip -q -r -y "$partial" python sidecar QOR_RUNTIME_VERSION)
mv -f "$partial" "$output"
