#!/usr/bin/env bash
# Kills tests outright (SIGKILL, as a CTest time-out does) once their servers are up, and checks
# that nothing they started outlives them: every process carrying the run's mark in its
# environment must be gone within a bounded wait. Covers the servers that detach themselves
# (avahi-daemon and its bus, Syncthing's monitor and child) and a plain child (the host).
#   scripts/check_killed_tests.sh [BUILD_DIR [avahi|syncthing|host]...]
# (default build/default and all three; needs root to read other processes' environments)
set -uo pipefail
build=${1:-build/default}
only=" ${*:2} "
cd "$(dirname "$0")/.."
failed=0

marked() { # pids of processes whose environment carries CORVANE_LEAK_MARK=$1
  grep -lsxzF "CORVANE_LEAK_MARK=$1" /proc/[0-9]*/environ | cut -d/ -f3
}
# What the test started: the marked processes, and those in the avahi pair's pid files
# (avahi-daemon overwrites its environment with its process title).
tracked() { # MARK TEST_PID
  { marked "$1"; cat "/tmp/corvane-avahi-$2"/*.pid; } 2>/dev/null | grep -vx "$2"
}
server_up() { # MARK TEST_PID COMM: true when a tracked process runs COMM
  local p; for p in $(tracked "$1" "$2"); do [ "$(cat "/proc/$p/comm" 2>/dev/null)" = "$3" ] && return 0; done
  return 1
}
until_true() { # SECONDS CMD...
  local end=$((SECONDS + $1)); shift
  until "$@"; do [ $SECONDS -ge $end ] && return 1; sleep 0.2; done
}
running() { # PID...: those still running (a zombie has ended)
  local p; for p in "$@"; do grep -qs '^State:.[^Z]' "/proc/$p/status" && echo "$p"; done
}
none_left() { [ -z "$(marked "$1")$(running $pids)" ]; }

check() { # NAME SERVER_COMM TEST_BINARY [ARGS...]
  local name=$1 server=$2 mark="leak-$$-$RANDOM" pid; shift 2
  [ "$only" = "  " ] || [[ "$only" == *" $name "* ]] || return 0
  CORVANE_LEAK_MARK=$mark "$@" >"/tmp/$mark.log" 2>&1 &
  pid=$!
  if ! until_true 120 server_up "$mark" "$pid" "$server"; then
    echo "$name: $server never started"; tail -5 "/tmp/$mark.log"; kill -KILL $pid; failed=1; return
  fi
  sleep "${SETTLE:-2}"  # well into the run; SETTLE=0 kills while the servers are still starting
  pids=$(tracked "$mark" "$pid")
  local before; before=$(echo $pids | xargs -r ps -o comm= -p | sort | uniq -c | xargs)
  kill -KILL $pid; wait $pid 2>/dev/null
  if until_true 30 none_left "$mark"; then
    echo "$name: killed with [$before] running; nothing left"
  else
    echo "$name: LEFT BEHIND:"; { marked "$mark"; running $pids; } | xargs -r ps -o pid,args -p; failed=1
  fi
  rm -f "/tmp/$mark.log"
}

check avahi avahi-daemon "$build/tests/discovery/discovery_avahi_test" \
  --gtest_filter='AvahiTest.*'
check syncthing syncthing "$build/tests/cloud/cloud_syncthing_test"
check host corvane-host env CORVANE_ROBUSTNESS_CALLS=10000000 "$build/tests/robustness/robustness_test" \
  --gtest_filter="RobustnessTest.*"
exit $failed
