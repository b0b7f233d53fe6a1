#!/usr/bin/env bash
# Builds the fuzz targets of fuzz/ as libFuzzer programs with clang,
# AddressSanitizer and UBSan in a build folder of their own (default
# build-fuzz), then runs each in turn for QOR_FUZZ_SECONDS (default 60),
# starting from its seed corpus and dictionary. Prints per target the inputs
# run and the coverage at the start and at the end; fails when any target
# finds a crash, a leak, a time-out or a sanitizer report. The inputs it
# finds stay in <build>/corpus/<target>, a failing input is saved in
# <build>/crashes/<target>/ and the whole output in <build>/logs/<target>.log.
#
#   scripts/fuzz.sh [TARGET...]    (default: every target)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${QOR_FUZZ_BUILD:-$root/build-fuzz}")
seconds=${QOR_FUZZ_SECONDS:-60}
jobs=${JOBS:-$(nproc)}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "QOR_FUZZ_SECONDS must be a whole number of seconds, not \"$seconds\"" >&2
  exit 2
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in "$root"/fuzz/*_fuzzer.cpp; do
    name=$(basename "$source" _fuzzer.cpp)
    targets+=("$name")
  done
fi

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQOR_SANITIZE=address -DQOR_LIBFUZZER=ON >/dev/null
cmake --build "$build" -j "$jobs" --target "${targets[@]/%/_fuzzer}"

# "#123 INITED cov: 45 ft: 67 ..." and "#9876 DONE cov: 50 ft: 80 ...".
field() { sed -n "s/.* $2: \([0-9]*\).*/\1/p" <<<"$1"; }

failed=()
for name in "${targets[@]}"; do
  corpus="$build/corpus/$name" crashes="$build/crashes/$name" log="$build/logs/$name.log"
  mkdir -p "$corpus" "$crashes" "$(dirname "$log")"
  status=0
  # GLib's slice allocator keeps freed blocks, which libFuzzer would take for
  # a leak to look for after every input.
  G_SLICE=always-malloc UBSAN_OPTIONS=print_stacktrace=1 "$build/fuzz/${name}_fuzzer" \
    -max_total_time="$seconds" -timeout=30 -print_final_stats=1 \
    -dict="$root/fuzz/dictionaries/$name.dict" -artifact_prefix="$crashes/" \
    "$corpus" "$root/fuzz/corpus/$name" >"$log" 2>&1 || status=$?
  start=$(grep -m1 -E '^#[0-9]+[[:space:]]+INITED ' "$log" || true)
  end=$(grep -E '^#[0-9]+[[:space:]]+[A-Z]+ ' "$log" | tail -n1 || true)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
  printf '%-20s %s inputs in %s s; coverage %s -> %s, features %s -> %s\n' "$name" \
    "${runs:-?}" "$seconds" "$(field "$start" cov)" "$(field "$end" cov)" \
    "$(field "$start" ft)" "$(field "$end" ft)"
  if [ "$status" -ne 0 ] || grep -qE 'ERROR: (Address|Leak|Undefined)Sanitizer|runtime error:|==ERROR' "$log"; then
    echo "  FAILED (exit status $status); see $log:" >&2
    grep -m5 -E 'ERROR|runtime error|property broken|Test unit written' "$log" | sed 's/^/    /' >&2
    failed+=("$name")
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzzing failed for: ${failed[*]}" >&2
  exit 1
fi
echo "fuzzing found nothing in ${#targets[@]} targets, $seconds s each"
