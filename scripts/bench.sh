#!/usr/bin/env bash
# Builds the default preset and runs the benchmarks, then prints every timing as a ratio
# against the baseline measured in the same run. Also measures an idle headless host.
#
#   scripts/bench.sh                    (under a minute once built)
#   BENCH_MIN_TIME=1 scripts/bench.sh   for steadier numbers
set -euo pipefail

min_time=${BENCH_MIN_TIME:-0.5}
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=build/default

cmake --preset default >/dev/null
cmake --build --preset default --target bench_codec bench_engine bench_ui bench_legacy

work=$(mktemp -d "${TMPDIR:-/tmp}/corvane-bench.XXXXXX")
host_pid=""
cleanup() {
  if [[ -n "$host_pid" ]]; then kill "$host_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

"$build/bench/bench_codec" --benchmark_min_time="$min_time" \
  --benchmark_out="$work/codec.json" --benchmark_out_format=json
"$build/bench/bench_engine" --benchmark_min_time="$min_time" \
  --benchmark_out="$work/engine.json" --benchmark_out_format=json
# Again with every thread on one CPU: across CPUs a round trip here is mostly the wake-up
# latency of an idle virtual CPU, which hides what the engine itself adds.
if command -v taskset >/dev/null; then
  taskset -c 0 "$build/bench/bench_engine" --benchmark_min_time="$min_time" \
    --benchmark_out="$work/engine_one_cpu.json" --benchmark_out_format=json
fi

# Symbol rendering; prints its own ratios against a bare librsvg render.
"$build/bench/bench_ui" --benchmark_min_time="$min_time"
# Medians of five repetitions each: the 12-megapixel conversion runs for a good part of a second.
"$build/bench/bench_legacy" --benchmark_out="$work/legacy.json" --benchmark_out_format=json

# Idle host: resident memory after start-up and CPU time over a quiet window.
idle_status="not measured: apps/corvane-host does not build yet"
if cmake --build --preset default --target corvane-host >"$work/host-build.log" 2>&1 &&
    [[ -x "$build/apps/corvane-host/corvane-host" ]]; then
  runtime="$work/runtime"
  mkdir -m 0700 "$runtime"
  XDG_RUNTIME_DIR="$runtime" "$build/apps/corvane-host/corvane-host" --headless \
    --engine-socket "$runtime/engine.sock" >"$work/host.log" 2>&1 &
  host_pid=$!
  sleep 3
  if kill -0 "$host_pid" 2>/dev/null && [[ -S "$runtime/engine.sock" ]]; then
    ticks() { awk '{ sub(/.*\) /, ""); print $12 + $13 }' "/proc/$host_pid/stat"; }
    before=$(ticks)
    sleep 5
    after=$(ticks)
    rss_kb=$(awk '/^VmRSS:/ { print $2 }' "/proc/$host_pid/status")
    idle_status="rss_kb=$rss_kb cpu_ticks=$((after - before)) window_s=5 clk_tck=$(getconf CLK_TCK)"
    kill "$host_pid"
    wait "$host_pid" 2>/dev/null || true
  else
    idle_status="not measured: corvane-host did not start serving ($(tail -n 1 "$work/host.log"))"
  fi
  host_pid=""
fi

python3 - "$work/codec.json" "$work/engine.json" "$work/engine_one_cpu.json" "$idle_status" \
  "$work/legacy.json" <<'PY'
import os
import json, sys

def benchmarks(path):
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return json.load(f)["benchmarks"]

def load(path):
    scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
    out = {}
    for b in benchmarks(path):
        if b.get("run_type", "iteration") != "iteration" or b.get("error_occurred"):
            continue
        b["us"] = b["real_time"] * scale[b["time_unit"]]
        out[b["name"].removesuffix("/real_time")] = b
    return out

codec = load(sys.argv[1])
engines = {"": load(sys.argv[2]), " (1 cpu)": load(sys.argv[3])}
idle = sys.argv[4]

# Legacy work runs on the bridge's own thread: compared by the CPU time of the whole process,
# which a busy machine does not inflate the way it does wall time.
legacy = {b["run_name"].split("/repeats")[0]: b["process_cpu_ms"]
          for b in benchmarks(sys.argv[5]) if b.get("aggregate_name") == "median"}

def verdict(ok):
    return "ok" if ok else "MISSED"

rows = []
def row(what, value, baseline, ratio, target=""):
    rows.append((what, value, baseline, ratio, target))

for shape in ("send_call", "listing", "bytes_1mib"):
    base = codec.get(f"codec/{shape}/memcpy")
    for op in ("encode", "decode"):
        b = codec.get(f"codec/{shape}/{op}")
        if not b or not base:
            row(f"{shape} {op}", "missing", "", "", "")
            continue
        ratio = b["us"] / base["us"]
        target = ""
        if shape == "listing":
            limit = 58.0 if op == "decode" else 11.0
            flutter = 175.0 if op == "decode" else 22.0
            target = f"<= {limit:g} us: {verdict(b['us'] <= limit)} ({flutter / b['us']:.1f}x Flutter)"
        elif shape == "bytes_1mib":
            target = f"<= 1.3x: {verdict(ratio <= 1.3)}"
        mbs = b.get("bytes_per_second", 0) / 1e6
        row(f"{shape} {op}", f"{b['us']:.3f} us {mbs:.0f} MB/s", f"memcpy {base['us']:.3f} us",
            f"{ratio:.2f}x", target)

for label, engine in engines.items():
    e = engine.get("engine/call_roundtrip")
    r = engine.get("raw/unix_pingpong")
    if not e or not r:
        row(f"engine round trip{label}", "missing", "", "", "")
        continue
    for stat in ("p50_us", "mean_us"):
        ratio = e[stat] / r[stat]
        row(f"engine round trip {stat[:-3]}{label}", f"{e[stat]:.2f} us", f"raw {r[stat]:.2f} us",
            f"{ratio:.2f}x", f"<= 3x: {verdict(ratio <= 3)}")

for name, base, target in (("legacy/convert_12mp", "bare/decode_encode_12mp", 1.1),
                           ("legacy/convert_12mp_call", "bare/decode_encode_12mp", None),
                           ("legacy/read_defaults_1mb", "bare/plist_parse_1mb", None)):
    if name not in legacy or base not in legacy:
        row(name, "missing", "", "", "")
        continue
    ratio = legacy[name] / legacy[base]
    row(f"{name} cpu", f"{legacy[name]:.1f} ms", f"{base} {legacy[base]:.1f} ms",
        f"{ratio:.2f}x", f"<= {target}x: {verdict(ratio <= target)}" if target else "")

if idle.startswith("rss_kb="):
    f = dict(kv.split("=") for kv in idle.split())
    rss_mb = int(f["rss_kb"]) / 1024
    cpu = int(f["cpu_ticks"]) / int(f["clk_tck"]) / int(f["window_s"]) * 100
    row("idle host rss", f"{rss_mb:.1f} MB", "", "", f"< 20 MB: {verdict(rss_mb < 20)}")
    row("idle host cpu", f"{cpu:.1f} % ({f['cpu_ticks']} ticks/5 s)", "", "",
        f"0 %: {verdict(int(f['cpu_ticks']) == 0)}")
else:
    row("idle host", idle, "", "", "")

widths = [max(len(str(r[i])) for r in rows) for i in range(5)]
print()
for r in rows:
    print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)).rstrip())
PY

# Game controllers on four SDL virtual pads, beside the bare SDL calls of the same run, and a
# process with those pads that has played a pattern and then idles.
cmake --build --preset default --target bench_gamepad >/dev/null
"$build/bench/bench_gamepad" --benchmark_min_time="$min_time" \
  --benchmark_out="$work/gamepad.json" --benchmark_out_format=json >/dev/null
gamepad_idle=$("$build/bench/bench_gamepad" --idle-seconds=5 | tail -n 1)
python3 - "$work/gamepad.json" "$gamepad_idle" <<'PY'
import json, sys

with open(sys.argv[1]) as f:
    runs = {b["name"].removesuffix("/manual_time"): b for b in json.load(f)["benchmarks"]
            if not b.get("error_occurred")}

def ns(name, key="real_time"):
    b = runs.get(name)
    return b[key] if b else None

print()
for what, ours, base, target in (("haptic to first rumble", "gamepad/haptic_to_rumble",
                                  "raw/sdl_rumble", 1.5),
                                 ("controllers, 4 pads", "gamepad/controllers_4",
                                  "raw/sdl_list_4", None)):
    o, b = ns(ours), ns(base)
    if o is None or b is None:
        print(f"{what}: missing")
        continue
    line = f"{what}: {o:.0f} ns, {base} {b:.0f} ns, {o / b:.1f}x"
    if target:
        line += f" (target {target}x: {'ok' if o / b <= target else 'MISSED'})"
    floor, update = ns("raw/channel_not_implemented"), ns("raw/sdl_update_4")
    if ours == "gamepad/haptic_to_rumble" and floor and update:
        line += f"; of that, the channel {floor:.0f} ns and SDL reading the pads {update:.0f} ns"
    print(line)
print("gamepad " + sys.argv[2])
PY
