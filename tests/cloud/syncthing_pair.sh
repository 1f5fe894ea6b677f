# syncthing_pair.sh: two loopback-only Syncthing 1.19 peers for tests. `source` it from bash.
# Needs: apt-get install -y syncthing curl jq iproute2
st_wait() { # TIMEOUT_S CMD... : poll every 0.2 s, return 1 on timeout or once the owner is gone
  local end=$(( $(date +%s) + $1 )); shift
  until "$@" >/dev/null 2>&1; do
    [ "$(date +%s)" -ge "$end" ] || ! kill -0 "${ST_OWNER:-$$}" 2>/dev/null && return 1; sleep 0.2; done; }
st_api() { # A|B METHOD PATH [JSON]
  local key=$ST_B_KEY url=$ST_B_API; [ "$1" = A ] && key=$ST_A_KEY url=$ST_A_API
  curl -fsS -m 5 -X "$2" -H "X-API-Key: $key" ${4:+-H 'Content-Type: application/json' -d "$4"} "$url$3"; }
st_uri() { jq -rn --arg s "$1" '$s|@uri'; }
st_scan() { st_api "$1" POST "/rest/db/scan?folder=$ST_FOLDER_ID${2:+&sub=$(st_uri "$2")}"; }
st_idle() { [ "$(st_api "$1" GET "/rest/db/status?folder=$ST_FOLDER_ID" | jq -r .state)" = idle ]; }
st_conn() { st_api "$1" GET /rest/system/connections | jq -e --arg p "$2" '.connections[$p].connected' >/dev/null; }
st_connected() { st_conn A "$ST_B_ID" && st_conn B "$ST_A_ID"; }
st_has() { [ -f "$1" ] && [ "$(cat "$1")" = "$2" ]; }
st_wait_file() { # A|B REL CONTENT [TIMEOUT]: wait until REL holds exactly CONTENT
  local d=$ST_B_DIR; [ "$1" = A ] && d=$ST_A_DIR; st_wait "${4:-30}" st_has "$d/$2" "$3"; }
st_config() { # HOME MYID PEERID DIR GUIPORT BEPPORT PEERADDR APIKEY NAME
  cat >"$1/config.xml" <<EOF
<configuration version="36">
 <folder id="$ST_FOLDER_ID" label="$ST_FOLDER_ID" path="$4" type="sendreceive" rescanIntervalS="10" fsWatcherEnabled="true"
   fsWatcherDelayS="1"><filesystemType>basic</filesystemType><device id="$2"></device><device id="$3"></device>
  <minDiskFree unit="%">0</minDiskFree><maxConflicts>10</maxConflicts><markerName>.stfolder</markerName></folder>
 <device id="$2" name="$9"><address>dynamic</address></device><device id="$3" name="peer"><address>$7</address></device>
 <gui enabled="true" tls="false"><address>127.0.0.1:$5</address><apikey>$8</apikey></gui>
 <options><listenAddress>tcp://127.0.0.1:$6</listenAddress><globalAnnounceEnabled>false</globalAnnounceEnabled>
  <localAnnounceEnabled>false</localAnnounceEnabled><relaysEnabled>false</relaysEnabled><natEnabled>false</natEnabled>
  <announceLANAddresses>false</announceLANAddresses><urAccepted>-1</urAccepted><crashReportingEnabled>false</crashReportingEnabled>
  <startBrowser>false</startBrowser><autoUpgradeIntervalH>0</autoUpgradeIntervalH><reconnectionIntervalS>5</reconnectionIntervalS>
  <setLowPriority>false</setLowPriority><minHomeDiskFree unit="%">0</minHomeDiskFree></options>
</configuration>
EOF
}
# The owner (ST_OWNER, else the nearest process above this shell that is not a shell: the test). A
# watcher kills each side's process group, monitor and child, once the owner is gone, even by SIGKILL.
st_owner() { local p=$$; while grep -qxE 'sh|bash|dash' "/proc/$p/comm" 2>/dev/null; do
  p=$(sed 's/.*) //' "/proc/$p/stat" | cut -d' ' -f2); done; echo "$p"; }
st_start() { # A|B : start one side in a process group of its own (the PID is the monitor's)
  local h=$ST_B_HOME; [ "$1" = A ] && h=$ST_A_HOME
  STNOUPGRADE=1 STHASHING=${STHASHING:-standard} setsid syncthing serve --home="$h" --no-browser --no-restart \
    --no-upgrade --logflags=3 --logfile="$ST_ROOT/$1.log" >"$ST_ROOT/$1.out" 2>&1 </dev/null & eval "export ST_$1_PID=$!"
  setsid bash -c 'tail --pid="$1" -f /dev/null; kill -KILL -- -"$2"' bash "$ST_OWNER" $! >/dev/null 2>&1 </dev/null &
  eval "export ST_$1_WATCH=$!"; st_wait 30 st_api "$1" GET /rest/system/ping || { echo "st: $1 REST not up" >&2; return 1; }; }
start_pair() { # NEW_OR_EMPTY_DIR [BASEPORT]: sets ST_{A,B}_{DIR,HOME,ID,KEY,API,PID}, ST_FOLDER_ID
  local d=$1 base=${2:-} i s
  export ST_OWNER=${ST_OWNER:-$(st_owner)}; [ "$ST_OWNER" != 1 ] || return 1  # its test is gone
  mkdir -p "$d" && [ -z "$(ls -A "$d")" ] && d=$(cd "$d" && pwd) || { echo "st: $d not empty" >&2; return 1; }
  for i in 1 2 3 4 5 6 7 8 9 10; do
    [ -n "$base" ] && break; base=$(( 20000 + RANDOM % 20000 ))
    for s in 0 1 2 3; do [ -z "$(ss -Hltn "sport = :$((base+s))")" ] || base=; done
  done
  [ -n "$base" ] || return 1
  export ST_ROOT=$d ST_FOLDER_ID=${ST_FOLDER_ID:-testfolder}
  export ST_A_HOME=$d/home-a ST_B_HOME=$d/home-b ST_A_DIR=$d/dir-a ST_B_DIR=$d/dir-b
  export ST_A_API=http://127.0.0.1:$base ST_B_API=http://127.0.0.1:$((base+2))
  export ST_A_KEY=$(od -An -N24 -tx1 /dev/urandom | tr -d ' \n') ST_B_KEY=$(od -An -N24 -tx1 /dev/urandom | tr -d ' \n')
  syncthing generate --home="$ST_A_HOME" --no-default-folder --skip-port-probing >"$d/gen.log" 2>&1 &&
  syncthing generate --home="$ST_B_HOME" --no-default-folder --skip-port-probing >>"$d/gen.log" 2>&1 || return 1
  export ST_A_ID=$(syncthing serve --home="$ST_A_HOME" --device-id) ST_B_ID=$(syncthing serve --home="$ST_B_HOME" --device-id)
  mkdir -p "$ST_A_DIR/.stfolder" "$ST_B_DIR/.stfolder"
  # Only B dials: A lists B as "dynamic" (resolves to nothing with discovery off); see pitfalls.
  st_config "$ST_A_HOME" "$ST_A_ID" "$ST_B_ID" "$ST_A_DIR" $base $((base+1)) dynamic "$ST_A_KEY" A
  st_config "$ST_B_HOME" "$ST_B_ID" "$ST_A_ID" "$ST_B_DIR" $((base+2)) $((base+3)) tcp://127.0.0.1:$((base+1)) "$ST_B_KEY" B
  st_start A && st_start B || return 1    # A listening before B's first dial
  st_wait 60 st_connected || { echo "st: peers did not connect" >&2; return 1; }
  st_wait 60 st_idle A && st_wait 60 st_idle B || { echo "st: folder not idle" >&2; return 1; }
}
st_cf() { # A|B REL: basenames of REL's conflict copies (same dir, tag before the last dot)
  local d=$ST_B_DIR b=${2##*/} e=; [ "$1" = A ] && d=$ST_A_DIR
  case $b in *.*) e=.${b##*.};; esac
  find "$d/$(dirname "$2")" -maxdepth 1 -name "${b%"$e"}.sync-conflict-*$e" -printf '%f\n' | sort; }
st_pause() { # true|false: the folder paused on both sides, the link stays up
  st_api A PATCH "/rest/config/folders/$ST_FOLDER_ID" "{\"paused\":$1}" >/dev/null &&
    st_api B PATCH "/rest/config/folders/$ST_FOLDER_ID" "{\"paused\":$1}" >/dev/null; }
make_conflict() { # REL CONTENT_A CONTENT_B: REL in sync on both sides; B's newer edit wins
  local rel=$1 la lb
  la=$(st_cf A "$rel"); lb=$(st_cf B "$rel"); st_pause true || return 1
  printf '%s' "$2" >"$ST_A_DIR/$rel"; printf '%s' "$3" >"$ST_B_DIR/$rel"
  touch -d '-5 seconds' "$ST_A_DIR/$rel"; st_pause false || return 1
  st_wait 30 st_connected || { echo "st: no reconnect" >&2; return 1; }
  st_wait 30 eval '[ "$(st_cf A "$rel")" != "$la" ] && [ "$(st_cf B "$rel")" != "$lb" ]' || { echo "st: no conflict copy" >&2; return 1; }
  st_wait 30 st_has "$ST_A_DIR/$rel" "$3" && st_wait 30 st_has "$ST_B_DIR/$rel" "$3" &&
    st_wait 30 st_idle A && st_wait 30 st_idle B || { echo "st: not settled" >&2; return 1; }
  ST_CONFLICT_REL=$(dirname "$rel")/$(st_cf A "$rel" | grep -vxF "$la" | tail -n1); export ST_CONFLICT_REL=${ST_CONFLICT_REL#./}
}
st_gone() { [ ! -e "/proc/$1" ] || grep -q '^State:.Z' "/proc/$1/status"; }  # dead or a zombie
stop_pair() { # SIGTERM to each side's group (monitor and child), SIGKILL if it lingers; then the watchers
  local p; for p in ${ST_A_PID:-} ${ST_B_PID:-}; do
    kill -TERM -- "-$p"; st_wait 15 st_gone "$p" || kill -KILL -- "-$p"; done 2>/dev/null
  for p in ${ST_A_WATCH:-} ${ST_B_WATCH:-}; do kill -- "-$p"; done 2>/dev/null || :; }
