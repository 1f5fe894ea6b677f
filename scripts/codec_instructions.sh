#!/usr/bin/env bash
# Instructions per codec operation, counted by callgrind: a case run BASE times and BASE+RUNS
# times, the difference over RUNS. The same build gives the same figure on every run.
#
#   scripts/codec_instructions.sh [SHAPE OP]...   (default: every case; BUILD=build/default)
set -euo pipefail

build=${BUILD:-build/default}
counter="$build/bench/codec_count"
base=${CODEC_COUNT_BASE:-20}
runs=${CODEC_COUNT_RUNS:-200}
work=$(mktemp -d "${TMPDIR:-/tmp}/corvane-callgrind.XXXXXX")
trap 'rm -rf "$work"' EXIT

cases=("$@")
if [[ ${#cases[@]} -eq 0 ]]; then
  for shape in send_call listing bytes_1mib; do
    for op in encode decode memcpy; do cases+=("$shape" "$op"); done
  done
fi

count() {  # shape op runs -> total instructions of the whole program
  valgrind --tool=callgrind --callgrind-out-file="$work/out" "$counter" "$1" "$2" "$3" \
    >/dev/null 2>"$work/log" || { cat "$work/log" >&2; return 1; }
  awk '/^summary:/ { print $2 }' "$work/out"
}

for ((i = 0; i < ${#cases[@]}; i += 2)); do
  shape=${cases[i]} op=${cases[i + 1]}
  # The 1 MiB case is slow under callgrind and needs few runs to be exact.
  r=$runs b=$base
  if [[ $shape == bytes_1mib ]]; then r=4 b=1; fi
  low=$(count "$shape" "$op" "$b")
  high=$(count "$shape" "$op" $((b + r)))
  echo "$shape $op $(((high - low) / r))"
done
