#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for SECONDS each, starting from its seed corpus, with
# leak detection on. Fails as soon as a target reports a crash, a leak or a time-out.
# Usage: fuzz.sh BUILD_DIR SECONDS
set -euo pipefail

build=${1:?usage: fuzz.sh BUILD_DIR SECONDS}
seconds=${2:?usage: fuzz.sh BUILD_DIR SECONDS}
root="$(cd "$(dirname "$0")/.." && pwd)"
targets=(unarchive_fuzz plist_fuzz json_fuzz)

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:${ASAN_OPTIONS:-}
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}

status=0
for target in "${targets[@]}"; do
  binary="$build/fuzz/$target"
  if [[ ! -x "$binary" ]]; then
    echo "fuzz: $binary is missing (configure with -DVORLUND_FUZZ=ON)" >&2
    exit 1
  fi
  # New inputs go to a scratch corpus; the committed seeds stay as they are.
  corpus="$work/$target"
  mkdir -p "$corpus" "$work/artifacts-$target"
  echo "fuzz: $target for ${seconds}s"
  if ! "$binary" "$corpus" "$root/fuzz/corpus/$target" \
      -max_total_time="$seconds" -rss_limit_mb=2048 -detect_leaks=1 -timeout=30 \
      -artifact_prefix="$work/artifacts-$target/" -print_final_stats=1 \
      >"$work/$target.log" 2>&1; then
    echo "fuzz: $target FAILED" >&2
    tail -n 60 "$work/$target.log" >&2
    mkdir -p "$root/fuzz/findings"
    cp -r "$work/artifacts-$target/." "$root/fuzz/findings/" 2>/dev/null || true
    status=1
  else
    grep -E "^stat::number_of_executed_units|Done [0-9]+ runs" "$work/$target.log" | tail -n 1 || true
  fi
done
exit $status
