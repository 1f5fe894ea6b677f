#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, preset "fuzz") and runs each one for SECONDS (default 60)
# from a scratch copy of its seed corpus, so the checked-in seeds stay small. Exits non-zero if
# any target finds a crash; the reproducer is left in the target's artifact folder.
#
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail

seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

cmake --preset fuzz >/dev/null
# Only the fuzzers: the rest of the tree is built and tested by the default presets.
cmake --build --preset fuzz --target fuzzers

work=$(mktemp -d "${TMPDIR:-/tmp}/corvane-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
artifacts="$root/build/fuzz/artifacts"
mkdir -p "$artifacts"

targets=()
for binary in build/fuzz/fuzz/fuzz_*; do
  [[ -x "$binary" ]] && targets+=("$(basename "$binary")")
done

failed=()
for target in "${targets[@]}"; do
  corpus="$work/$target"
  mkdir -p "$corpus"
  if [[ -d "fuzz/corpus/$target" ]]; then
    cp -r "fuzz/corpus/$target/." "$corpus/"
  fi
  log="$work/$target.log"
  echo "fuzz: $target for ${seconds}s"
  if "build/fuzz/fuzz/$target" "$corpus" -max_total_time="$seconds" -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$artifacts/$target-" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz: $target ok, ${runs:-?} runs"
  else
    tail -n 60 "$log"
    echo "fuzz: $target FAILED (reproducer in $artifacts)"
    failed+=("$target")
  fi
done

if [[ ${#failed[@]} -gt 0 ]]; then
  echo "fuzz: crashes in ${failed[*]}"
  exit 1
fi
