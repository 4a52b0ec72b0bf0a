#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for SECONDS each, starting from its seeds: the
# committed fuzz/corpus/TARGET and the recorded inputs of tests/testdata that the target reads.
# Leak detection is on. Fails when any target reports a crash, a leak, a time-out or a broken
# invariant; its reproducer is copied to fuzz/findings/.
# Usage: fuzz.sh BUILD_DIR SECONDS
set -euo pipefail

build=${1:?usage: fuzz.sh BUILD_DIR SECONDS}
seconds=${2:?usage: fuzz.sh BUILD_DIR SECONDS}
root="$(cd "$(dirname "$0")/.." && pwd)"

# The folders of tests/testdata whose files each target reads.
declare -A testdata=(
  [plist_fuzz]="archives preferences results test-cases"
  [json_fuzz]="test-cases"
  [unarchive_fuzz]="archives results test-cases fuzz-findings"
  [test_case_fuzz]="test-cases fuzz-findings"
  [preferences_fuzz]="preferences"
  [results_fuzz]="results fleet fuzz-findings"
  [ipm_message_fuzz]=""
  [memory_table_fuzz]="memory-table fuzz-findings"
  [crash_report_fuzz]="faultbin"
  [memory_diagnostics_fuzz]="memory memory-table"
  [journal_import_fuzz]="journal"
  [ping_summary_fuzz]="network/ping"
  [iperf_output_fuzz]="network/throughput"
  [curl_output_fuzz]="network/throughput"
  [ledger_file_fuzz]="hostlink/ledger"
  [frame_reader_fuzz]="hostlink/frames"
  [manager_frame_fuzz]="hostlink/manager_frames hostlink/frames"
)

mapfile -t targets < <(find "$build/fuzz" -maxdepth 1 -type f -executable -name '*_fuzz' \
  -printf '%f\n' | sort)
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "fuzz: no targets in $build/fuzz (configure with -DVORLUND_FUZZ=ON)" >&2
  exit 1
fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The targets' private homes (logs, preferences, results files) go to the scratch space too.
export TMPDIR="$work"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:${ASAN_OPTIONS:-}
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}

status=0
for target in "${targets[@]}"; do
  if [[ ! -v "testdata[$target]" ]]; then
    echo "fuzz: $target has no entry in the seed table of $0" >&2
    exit 1
  fi
  # The seeds are copied into a scratch corpus that takes the new inputs too; the committed
  # seeds stay as they are.
  corpus="$work/$target"
  mkdir -p "$corpus" "$work/artifacts-$target"
  seeds=("$root/fuzz/corpus/$target")
  for topic in ${testdata[$target]}; do seeds+=("$root/tests/testdata/$topic"); done
  for dir in "${seeds[@]}"; do
    if [[ -d "$dir" ]]; then find "$dir" -type f -exec cp -t "$corpus" {} +; fi
  done
  echo "fuzz: $target for ${seconds}s from $(find "$corpus" -type f | wc -l) seeds"
  if ! "$build/fuzz/$target" "$corpus" \
      -max_total_time="$seconds" -rss_limit_mb=2048 -detect_leaks=1 -timeout=30 \
      -artifact_prefix="$work/artifacts-$target/" -print_final_stats=1 \
      >"$work/$target.log" 2>&1; then
    echo "fuzz: $target FAILED" >&2
    tail -n 60 "$work/$target.log" >&2
    mkdir -p "$root/fuzz/findings"
    cp -r "$work/artifacts-$target/." "$root/fuzz/findings/" 2>/dev/null || true
    status=1
  else
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log")
    echo "fuzz: $target: ${runs:-?} runs in ${seconds}s"
  fi
done
exit $status
