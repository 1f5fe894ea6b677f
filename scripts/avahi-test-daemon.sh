#!/usr/bin/env bash
# A private D-Bus "system" bus plus avahi-daemon for the DNS-SD tests and benchmark: as root,
# without systemd, no chroot, no privilege drop. Idempotent: "start" reuses a running pair.
#
#   avahi-test-daemon.sh [start]              start (or reuse) dbus-daemon + avahi-daemon, wait ready
#   eval "$(avahi-test-daemon.sh env)"        point Avahi clients (the host, avahi-*) at it
#   avahi-test-daemon.sh status | stop        stop kills both by their recorded process ids
#   avahi-test-daemon.sh stop-avahi | start   take the daemon away and bring it back (bus stays)
#
# AVAHI_CI_DIR chooses the state directory (default /tmp/corvane-avahi), so several builds and
# tests can each run their own pair. avahi-daemon runs in a throw-away network namespace with only
# "lo" (no mDNS packet reaches a real network) and a mount namespace with a private
# /run/avahi-daemon (a host daemon or a stale pid file cannot collide). Clients reach it over the
# bus socket, which crosses namespaces; published services resolve to 127.0.0.1.
# AVAHI_CI_NETNS=0 runs it in the host namespace instead (allow-interfaces=lo).
# AVAHI_CI_TWO_LINKS=1 (with the namespace) adds a veth pair, cv0 10.77.0.1 and cv1 10.77.0.2,
# and IPv6: every published service is then seen on several interfaces and protocols.
# AVAHI_CI_OWNER=PID ties the pair to that process (a test): a watcher stops the pair and removes
# the state directory once it is gone, however it ended (a CTest time-out kills with SIGKILL).
set -euo pipefail

DIR=${AVAHI_CI_DIR:-/tmp/corvane-avahi}
HOST=${AVAHI_CI_HOSTNAME:-corvane-ci}
USE_NETNS=${AVAHI_CI_NETNS:-1}
TIMEOUT=${AVAHI_CI_TIMEOUT:-20}
SOCK=$DIR/system_bus_socket
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$SOCK

die() { echo "avahi-test-daemon: $*" >&2; exit 1; }

# Alive = exists, is the right program, is not a zombie: PID 1 in a container may never reap
# orphans, so `kill -0` alone reports dead daemons as alive.
alive() { # pidfile comm
  local pid st
  [ -s "$1" ] || return 1
  pid=$(cat "$1")
  [ "$(cat /proc/"$pid"/comm 2>/dev/null)" = "$2" ] || return 1
  st=$(sed 's/.*) //' /proc/"$pid"/stat 2>/dev/null | cut -d' ' -f1)
  [ -n "$st" ] && [ "$st" != Z ] && [ "$st" != X ]
}

# Server.GetState == 2 (running): the host name is probed and announced, so publishing works.
avahi_ready() {
  dbus-send --system --print-reply=literal --reply-timeout=1000 \
    --dest=org.freedesktop.Avahi / org.freedesktop.Avahi.Server.GetState 2>/dev/null |
    grep -q 'int32 2'
}

stop_pid() { # pidfile comm
  local i
  alive "$1" "$2" || { rm -f "$1"; return 0; }
  kill "$(cat "$1")"
  for i in $(seq 50); do alive "$1" "$2" || break; sleep 0.1; done
  if alive "$1" "$2"; then kill -9 "$(cat "$1")"; fi
  rm -f "$1"
}

start_dbus() {
  alive "$DIR/dbus.pid" dbus-daemon && return 0
  stop_pid "$DIR/avahi.pid" avahi-daemon # an avahi-daemon on a dead bus is useless
  rm -f "$SOCK" "$DIR/dbus.pid"
  cat >"$DIR/dbus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$SOCK</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/> <allow own="*"/>
    <allow send_destination="*"/> <allow receive_sender="*"/>
  </policy>
</busconfig>
EOF
  # --fork returns once the socket listens; fd 3 receives the daemon's process id. Every output
  # goes to files, so a caller reading our output (ctest) is not kept waiting by the daemon.
  dbus-daemon --config-file="$DIR/dbus.conf" --fork --nopidfile --print-pid=3 \
    3>"$DIR/dbus.pid" >"$DIR/dbus.log" 2>&1 </dev/null ||
    die "dbus-daemon failed: $(cat "$DIR/dbus.log")"
}

start_avahi() {
  alive "$DIR/avahi.pid" avahi-daemon && return 0
  rm -f "$DIR/avahi.pid"
  local links=0 ipv6=no interfaces=lo
  if [ "$USE_NETNS" = 1 ] && [ "${AVAHI_CI_TWO_LINKS:-0}" = 1 ]; then
    links=1 ipv6=yes interfaces=lo,cv0,cv1
  fi
  cat >"$DIR/avahi-daemon.conf" <<EOF
[server]
host-name=$HOST
use-ipv4=yes
use-ipv6=$ipv6
allow-interfaces=$interfaces
enable-dbus=yes
ratelimit-interval-usec=1000000
ratelimit-burst=1000
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
publish-aaaa-on-ipv4=no
EOF
  # Foreground (-D logs to syslog only); setsid detaches it from this shell. The inner sh records
  # its own process id and then execs, so the recorded id is avahi-daemon's.
  local ns=()
  [ "$USE_NETNS" = 1 ] && ns=(unshare --net --mount)
  mkdir -p /run/avahi-daemon
  # shellcheck disable=SC2016
  setsid "${ns[@]}" sh -c '
    echo $$ > "$1"
    if [ "$3" = 1 ]; then
      ip link set lo up && ip link set lo multicast on &&
      mount -t tmpfs -o mode=0755 corvane-avahi /run/avahi-daemon || exit 1
    fi
    if [ "$4" = 1 ]; then
      ip link add cv0 type veth peer name cv1 &&
        ip addr add 10.77.0.1/24 dev cv0 && ip addr add 10.77.0.2/24 dev cv1 &&
        ip link set cv0 up && ip link set cv1 up || exit 1
    fi
    exec avahi-daemon -f "$2" --no-drop-root --no-chroot --no-rlimits
  ' sh "$DIR/avahi.pid" "$DIR/avahi-daemon.conf" "$USE_NETNS" "$links" \
    >"$DIR/avahi.log" 2>&1 </dev/null &
}

# The watcher is the leader of a process group of its own (it and its "tail"), killed as a group.
start_watch() {
  [ -n "${AVAHI_CI_OWNER:-}" ] || return 0
  alive "$DIR/watch.pid" sh && return 0
  # shellcheck disable=SC2016
  setsid sh -c 'echo $$ >"$2/watch.pid"; tail --pid="$1" -f /dev/null
    rm -f "$2/watch.pid"; AVAHI_CI_DIR=$2 "$3" stop; rm -rf "$2"' \
    sh "$AVAHI_CI_OWNER" "$DIR" "$(readlink -f "$0")" >/dev/null 2>&1 </dev/null &
}

stop_watch() {
  if alive "$DIR/watch.pid" sh; then kill -- "-$(cat "$DIR/watch.pid")"; fi
  rm -f "$DIR/watch.pid"
}

do_start() {
  for c in avahi-daemon dbus-daemon dbus-send; do
    command -v "$c" >/dev/null || die "$c missing; run scripts/setup.sh"
  done
  mkdir -p "$DIR"
  local t0 i retried=""
  t0=$(date +%s%N)
  start_watch
  start_dbus
  start_avahi
  for i in $(seq $((TIMEOUT * 10))); do
    avahi_ready && break
    if [ "$i" -gt 5 ] && ! alive "$DIR/avahi.pid" avahi-daemon; then
      # One retry covers a start racing with a daemon that was just shutting down.
      if [ -z "$retried" ]; then
        retried=1
        start_avahi
        continue
      fi
      cat "$DIR/avahi.log" >&2
      die "avahi-daemon exited (if unshare was refused, try AVAHI_CI_NETNS=0)"
    fi
    sleep 0.1
  done
  avahi_ready || {
    cat "$DIR/avahi.log" >&2
    die "avahi-daemon not ready after ${TIMEOUT}s"
  }
  echo "avahi-test-daemon: ready in $((($(date +%s%N) - t0) / 1000000)) ms:" \
    "dbus pid $(cat "$DIR/dbus.pid"), avahi-daemon pid $(cat "$DIR/avahi.pid")" \
    "(host $HOST.local, log $DIR/avahi.log)"
  echo "avahi-test-daemon: export DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SYSTEM_BUS_ADDRESS"
}

do_status() {
  local rc=0
  if alive "$DIR/dbus.pid" dbus-daemon; then
    echo "dbus-daemon: pid $(cat "$DIR/dbus.pid")"
  else
    echo "dbus-daemon: stopped"
    rc=1
  fi
  if alive "$DIR/avahi.pid" avahi-daemon; then
    echo "avahi-daemon: pid $(cat "$DIR/avahi.pid"), ready: $(avahi_ready && echo yes || echo no)"
  else
    echo "avahi-daemon: stopped"
    rc=1
  fi
  return $rc
}

case "${1:-start}" in
  start) do_start ;;
  stop)
    stop_pid "$DIR/avahi.pid" avahi-daemon # its namespaces die with it
    stop_pid "$DIR/dbus.pid" dbus-daemon
    stop_watch
    rm -f "$SOCK"
    echo "avahi-test-daemon: stopped" ;;
  stop-avahi) stop_pid "$DIR/avahi.pid" avahi-daemon ;;
  status) do_status ;;
  env) echo "export DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SYSTEM_BUS_ADDRESS" ;;
  *) die "usage: $0 [start|stop|stop-avahi|status|env]" ;;
esac
