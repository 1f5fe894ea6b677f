#!/bin/sh
# One case of the guest's run as a test of its own: its time and failures; exit 77 when the
# guest could not run. Usage: case.sh OUT_DIR SUITE.CASE
out=$1 suite=${2%%.*} name=${2#*.}
[ -e "$out/skipped" ] && { cat "$out/skipped"; exit 77; }
[ -e "$out/results.json" ] || { echo "no results: see $out/console.log and $out/job.log"; exit 1; }
query='.testsuites[] | select(.name == $s) | .testsuite[] | select(.name == $n)'
jq -r --arg s "$suite" --arg n "$name" "$query"' | "\(.name) \(.time)", (.failures // [] | .[].failure)' \
  "$out/results.json"
jq -e --arg s "$suite" --arg n "$name" "$query"' | .result == "COMPLETED" and (.failures == null)' \
  "$out/results.json" >/dev/null
