#!/usr/bin/env bash
# Test lines against code lines: non-blank lines of every file under tests/ versus non-blank
# C/C++ lines under src/ and apps/. Counts tracked files only, so build output never counts.
set -euo pipefail
cd "$(dirname "$0")/.."
count() { git ls-files -z "$@" | xargs -0 cat | grep -cv '^\s*$'; }
tests=$(count tests)
code=$(count 'src/*.cc' 'src/*.h' 'src/*.c' 'src/*.cpp' 'src/*.hpp' \
             'apps/*.cc' 'apps/*.h' 'apps/*.c' 'apps/*.cpp' 'apps/*.hpp')
echo "test lines: $tests"
echo "code lines: $code"
awk -v t="$tests" -v c="$code" 'BEGIN { printf "ratio: %.1f%%\n", 100 * t / c }'
