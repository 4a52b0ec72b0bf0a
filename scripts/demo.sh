#!/usr/bin/env bash
# The demo: the main job the system has so far, on the built-in sample set-up. It encodes the sample
# test case definition as a keyed archive, decodes the archive back and prints it.
set -euo pipefail
build=${1:-build}
top=$(cd "$(dirname "$0")/.." && pwd)
ctl="$top/$build/tools/vorlundctl"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A private home, so the demo leaves the user's own log folder alone.
export HOME="$work/home"
mkdir -p "$HOME"

echo "== Sample test case definition (samples/test_case.json)"
cat "$top/samples/test_case.json"
echo
echo "== vorlundctl encode --class VLTestCaseObject samples/test_case.json test_case.archive"
"$ctl" encode --class VLTestCaseObject "$top/samples/test_case.json" "$work/test_case.archive"
echo "wrote $(stat -c %s "$work/test_case.archive") bytes, $(head -c 8 "$work/test_case.archive") keyed archive"
echo
echo "== vorlundctl decode test_case.archive"
"$ctl" decode "$work/test_case.archive"
