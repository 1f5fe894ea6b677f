#!/usr/bin/env bash
# Line coverage of src/ by the whole test suite: a --coverage build in build/coverage, the suite
# run once, gcovr's summary for src/.   scripts/coverage.sh [ctest arguments, e.g. -L udp]
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/coverage
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCORVANE_BUILD_BENCH=OFF \
  -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage >/dev/null
nice cmake --build "$build" -j2
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j2 --timeout 300 "$@" || echo "coverage: some tests failed" >&2
gcovr --root . --filter 'src/' --object-directory "$build" --gcov-ignore-parse-errors \
  --print-summary --txt "$build/coverage.txt" "$build" | tail -n 3
