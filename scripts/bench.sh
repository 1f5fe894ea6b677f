#!/usr/bin/env bash
# Builds the default preset and runs the benchmarks. Every figure is printed beside a baseline
# measured in the same run (memcpy, a raw socket between two processes, a bare process start)
# and the ratio between them; nothing is compared with a remembered number.
#
#   scripts/bench.sh                      (a few minutes once built)
#   BENCH_MIN_TIME=1 scripts/bench.sh     steadier wall times
#   BENCH_CALLS=20000 scripts/bench.sh    round trips per figure
#
# Codec instruction counts come from callgrind (scripts/codec_instructions.sh): they repeat
# exactly from run to run, where wall times on a shared machine do not.
set -euo pipefail

min_time=${BENCH_MIN_TIME:-0.5}
calls=${BENCH_CALLS:-20000}
udp_calls=${BENCH_UDP_CALLS:-5000}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=build/default
host="$build/apps/corvane-host/corvane-host"

cmake --preset default >/dev/null
cmake --build --preset default --target bench_codec codec_count roundtrip guarded_floor corvane-host
echo "machine load before the run: $(uptime)" >&2

work=$(mktemp -d "${TMPDIR:-/tmp}/corvane-bench.XXXXXX")
host_pid=""
cleanup() {
  if [[ -n "$host_pid" ]]; then kill "$host_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

"$build/bench/bench_codec" --benchmark_min_time="$min_time" \
  --benchmark_out="$work/codec.json" --benchmark_out_format=json >/dev/null

if command -v valgrind >/dev/null; then
  BUILD="$build" scripts/codec_instructions.sh >"$work/instructions.txt"
else
  echo "valgrind is not installed: no instruction counts" >&2
  : >"$work/instructions.txt"
fi

# Round trips through a real host process. Pinned: every process on one CPU, so the figure is
# the work done; unpinned: as the scheduler places them, so wake-ups across CPUs show.
pin=(taskset -c 0)
command -v taskset >/dev/null || pin=()
"$build/bench/roundtrip" call "$host" "$calls" >"$work/call.txt"
"${pin[@]}" "$build/bench/roundtrip" call "$host" "$calls" >"$work/call_pinned.txt"
"$build/bench/roundtrip" udp "$host" "$udp_calls" >"$work/udp.txt"
"${pin[@]}" "$build/bench/roundtrip" udp "$host" "$udp_calls" >"$work/udp_pinned.txt"
"$build/bench/roundtrip" startup "$host" 21 >"$work/startup.txt"

# The services' own benchmarks print their ratios against the bare library they wrap (symbol
# rendering against librsvg, ...); those this tree builds are run as they are.
# Their output is kept as well: the legacy read and the cloud listing are rows of the table.
for target in bench_ui bench_legacy bench_gamepad bench_camera bench_cloud; do
  if cmake --build --preset default --target "$target" >"$work/$target-build.log" 2>&1; then
    case "$target" in
      bench_camera | bench_cloud) "$build/bench/$target" | tee "$work/$target.txt" ;;
      bench_legacy)
        "$build/bench/$target" --benchmark_min_time="$min_time" \
          --benchmark_out="$work/legacy.json" --benchmark_out_format=json ;;
      *) "$build/bench/$target" --benchmark_min_time="$min_time" ;;
    esac
  fi
done

# Idle host: CPU time and wake-ups (context switches of all its threads) over a quiet window.
runtime="$work/runtime"
mkdir -m 0700 "$runtime"
XDG_RUNTIME_DIR="$runtime" "$host" --headless --engine-socket "$runtime/engine.sock" \
  >"$work/host.log" 2>&1 &
host_pid=$!
sleep 3
idle="not measured: the host did not start serving"
if kill -0 "$host_pid" 2>/dev/null && [[ -S "$runtime/engine.sock" ]]; then
  ticks() { awk '{ sub(/.*\) /, ""); print $12 + $13 }' "/proc/$host_pid/stat"; }
  switches() { cat /proc/"$host_pid"/task/*/status | awk '/ctxt_switches/ { n += $2 } END { print n }'; }
  t0=$(ticks) s0=$(switches)
  sleep 10
  t1=$(ticks) s1=$(switches)
  rss_kb=$(awk '/^VmRSS:/ { print $2 }' "/proc/$host_pid/status")
  idle="rss_kb=$rss_kb cpu_ticks=$((t1 - t0)) wakeups=$((s1 - s0)) window_s=10"
fi
kill "$host_pid" 2>/dev/null || true
wait "$host_pid" 2>/dev/null || true
host_pid=""
echo "$idle" >"$work/idle.txt"

python3 - "$work" <<'PY'
import json, os, sys

work = sys.argv[1]

def read(name):
    path = os.path.join(work, name)
    return open(path).read() if os.path.exists(path) else ""

def fields(text):
    """'name k=v k=v' lines -> {name: {k: v}}"""
    out = {}
    for line in text.splitlines():
        parts = line.split()
        if parts:
            out[parts[0]] = {k: float(v) for k, v in (p.split("=") for p in parts[1:] if "=" in p)}
    return out

rows = []
def row(what, value, baseline, ratio, target=""):
    rows.append((what, value, baseline, ratio, target))

def verdict(ok):
    return "ok" if ok else "MISSED"

# Codec wall time, each beside memcpy of the same bytes in the same run.
codec = {}
data = json.loads(read("codec.json") or '{"benchmarks": []}')
scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
for b in data["benchmarks"]:
    if b.get("run_type", "iteration") == "iteration" and not b.get("error_occurred"):
        codec[b["name"]] = b["real_time"] * scale[b["time_unit"]]

# Instructions per operation (callgrind), each beside memcpy's.
instructions = {}
for line in read("instructions.txt").splitlines():
    shape, op, n = line.split()
    instructions[(shape, op)] = int(n)

# Targets for the codec, in instructions per operation.
limits = {("listing", "decode"): 520_000, ("listing", "encode"): 107_000,
          ("send_call", "decode"): 1_380, ("send_call", "encode"): 1_000}

for shape in ("send_call", "listing", "bytes_1mib"):
    for op in ("encode", "decode"):
        t, base = codec.get(f"codec/{shape}/{op}"), codec.get(f"codec/{shape}/memcpy")
        if t and base:
            target = f"<= 1.3x memcpy: {verdict(t / base <= 1.3)}" if shape == "bytes_1mib" else ""
            row(f"{shape} {op} time", f"{t:.3f} us", f"memcpy {base:.3f} us", f"{t / base:.2f}x", target)
        n, nbase = instructions.get((shape, op)), instructions.get((shape, "memcpy"))
        if n and nbase:
            limit = limits.get((shape, op))
            target = f"<= {limit:,}: {verdict(n <= limit)}" if limit else ""
            if shape == "bytes_1mib":
                target = f"<= 1.01x memcpy: {verdict(n / nbase <= 1.01)}"
            row(f"{shape} {op} instructions", f"{n:,}", f"memcpy {nbase:,}", f"{n / nbase:.2f}x", target)

def round_trip(label, text, host_key, raw_key, p50_limit, p99_limit, base="raw", switches=True):
    f = fields(text)
    h, r = f.get(host_key), f.get(raw_key)
    if not h or not r:
        row(label, "missing", "", "", "")
        return
    for stat, limit in (("p50_us", p50_limit), ("p99_us", p99_limit)):
        ratio = h[stat] / r[stat]
        target = f"<= {limit:g}x: {verdict(ratio <= limit)}" if limit else ""
        row(f"{label} {stat[:3]}", f"{h[stat]:.2f} us", f"{base} {r[stat]:.2f} us", f"{ratio:.2f}x", target)
    s = f.get(host_key + "_switches")
    if s and switches:
        row(f"{label} {host_key.split('_')[0]} switches/call", f"{s['voluntary_per_call']:.2f} voluntary",
            f"{s['involuntary_per_call']:.2f} involuntary", "", "")

round_trip("call, unpinned", read("call.txt"), "host_call", "raw_unix", 2, None)
round_trip("call, one cpu", read("call_pinned.txt"), "host_call", "raw_unix", 1.25, None)
round_trip("udp guarded, unpinned", read("udp.txt"), "host_udp", "raw_udp", 2, 3)
round_trip("udp guarded, one cpu", read("udp_pinned.txt"), "host_udp", "raw_udp", 3, None)
# The design's floor (bench/guarded_floor: the same two queue hops around a raw datagram), so
# the host is judged against what its design can reach as well as against the raw socket.
for label, name in (("unpinned", "udp.txt"), ("one cpu", "udp_pinned.txt")):
    round_trip(f"udp guarded vs floor, {label}", read(name), "host_udp", "floor_udp", None, None,
               base="floor", switches=False)
    round_trip(f"udp floor vs raw, {label}", read(name), "floor_udp", "raw_udp", None, None)

# readDefaults of a 1 MB store against libplist parsing the same bytes: CPU time of the whole
# process per call (the call runs on the bridge's queue, so wall time would count waiting).
legacy = {}
for b in json.loads(read("legacy.json") or '{"benchmarks": []}')["benchmarks"]:
    if b.get("aggregate_name") == "median":
        legacy[b["run_name"]] = b.get("process_cpu_ms")
rd, parse = legacy.get("legacy/read_defaults_1mb/repeats:5/real_time"), legacy.get(
    "bare/plist_parse_1mb/repeats:5/real_time")
if rd and parse:
    row("readDefaults 1 MB store (cpu, median)", f"{rd:.1f} ms", f"libplist parse {parse:.1f} ms",
        f"{rd / parse:.2f}x", f"<= 1.5x: {verdict(rd / parse <= 1.5)}")
else:
    row("readDefaults 1 MB store", "missing", "", "", "")

# The items event of the cloud listing against an nftw walk of the same tree.
import re
m = re.search(r"items event of (\d+) documents while watching: ([\d.]+) ms, nftw walk: ([\d.]+) ms",
              read("bench_cloud.txt"))
if m:
    n, items, walk = m.group(1), float(m.group(2)), float(m.group(3))
    row(f"items event of {n} documents", f"{items:.2f} ms", f"nftw walk {walk:.2f} ms",
        f"{items / walk:.2f}x", f"<= 1.8x: {verdict(items / walk <= 1.8)}")
else:
    row("items event", "missing", "", "", "")

s = fields(read("startup.txt"))
if "host_startup" in s and "bare_startup" in s:
    h, b = s["host_startup"], s["bare_startup"]
    row("start-up to connectable socket (median)", f"{h['median_ms']:.1f} ms",
        f"bare process {b['median_ms']:.1f} ms", f"{h['median_ms'] / b['median_ms']:.1f}x",
        f"< 50 ms: {verdict(h['median_ms'] < 50)}")
    row("start-up, fastest run", f"{h['min_ms']:.1f} ms", f"bare process {b['min_ms']:.1f} ms",
        f"{h['min_ms'] / b['min_ms']:.1f}x", "")

idle = read("idle.txt").strip()
if idle.startswith("rss_kb="):
    f = dict(kv.split("=") for kv in idle.split())
    rss_mb = int(f["rss_kb"]) / 1024
    row("idle host rss", f"{rss_mb:.1f} MB", "", "", f"< 25 MB: {verdict(rss_mb < 25)}")
    row(f"idle host over {f['window_s']} s", f"{f['cpu_ticks']} cpu ticks, {f['wakeups']} wake-ups",
        "", "", f"0: {verdict(f['cpu_ticks'] == '0' and f['wakeups'] == '0')}")
else:
    row("idle host", idle, "", "", "")

widths = [max(len(str(r[i])) for r in rows) for i in range(5)]
print()
print("  ".join(h.ljust(w) for h, w in zip(("figure", "value", "same-run baseline", "ratio", "target"), widths)).rstrip())
for r in rows:
    print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)).rstrip())
PY
