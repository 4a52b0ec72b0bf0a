#!/usr/bin/env bash
# The demo: the main job the system has so far, on the built-in sample set-up. It encodes the sample
# test case definition as a keyed archive, decodes the archive back and prints it.
set -euo pipefail
build=${1:-build}
top=$(cd "$(dirname "$0")/.." && pwd)
ctl="$top/$build/tools/vorlundctl"
# The demo's files stay under the build folder, so that its results file and timeline can be
# opened afterwards; each run starts afresh.
work="$top/$build/demo"
rm -rf "$work"
mkdir -p "$work"

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

echo
echo "== A run recorded from the shell with vorlundctl results"
export VORLUND_SERIAL_NUMBER=DEMO0001
"$ctl" results add --name "WiFi Ping Gateway" --type PassFail --pass --tag band=5GHz
"$ctl" results add --name "WiFi Ping Gateway" --type PassFail --pass --tag band=5GHz
"$ctl" results add --name "WiFi Ping Gateway" --type PassFail --fail "Request timeout" --tag band=5GHz
for mbps in 41.5 44.0 39.25; do
  "$ctl" results add --name "WiFi Download" --type Average --pass --metric Mbps=$mbps --metric RTT=12
done
start=$(date -d '-90 seconds' +%Y-%m-%d-%H-%M-%S)
"$ctl" results add --name "Cellular Attach" --type HistogramByTime --fail "Attach reject" --start "$start"
"$ctl" results add --name "BT Pairing" --type HistogramByInstance --fail "Pairing timeout"
"$ctl" results add --name "BT Pairing" --type HistogramByInstance --pass
"$ctl" results add-issue --process wpa_supplicant --reason "SIGSEGV in driver event" --type Crash
echo "-- a result without its pass/fail is refused, and the run stays as it was:"
"$ctl" results add --name "WiFi Ping Gateway" --type PassFail || true
echo
"$ctl" results show
