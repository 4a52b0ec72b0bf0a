#!/usr/bin/env bash
# Runs every benchmark binary under BUILD/bench, writes its figures as JSON beside it and prints each
# figure with its ratio to the baseline of the same binary (the benchmark whose name holds
# "Baseline").
set -euo pipefail
build=${1:-build}
shopt -s nullglob
for binary in "$build"/bench/*_bench; do
  name=$(basename "$binary")
  echo "== $name"
  "$binary" --benchmark_out="$build/bench/$name.json" --benchmark_out_format=json \
    --benchmark_min_time=0.5 >/dev/null
  python3 - "$build/bench/$name.json" <<'PY'
import json, sys
runs = [b for b in json.load(open(sys.argv[1]))["benchmarks"] if b.get("run_type") == "iteration"]
rate = lambda b: b.get("items_per_second") or 1e9 / b["real_time"]
baseline = next((b for b in runs if "Baseline" in b["name"]), None)
for b in runs:
    line = f'{b["name"]:<45} {rate(b):>14,.0f} items/s'
    if baseline and b is not baseline:
        line += f'   {rate(b) / rate(baseline):.2f}x of {baseline["name"]}'
    print(line)
PY
done
