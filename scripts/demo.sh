#!/usr/bin/env bash
# The demo: the main job of the system on the built-in sample set-up. It encodes the sample test case
# definition as a keyed archive and decodes it back, stages the sample bundles under a demo device
# root, runs their test cases (one crashes a helper program, which a crash scan then finds; the
# network bundle measures against an HTTP and an iperf server it starts on loopback), records
# more results and an issue from the shell, and shows the run with where its results file and
# timeline are; last it publishes the log folder into the sync folders and collects them as a
# collector taking the run off the device would.
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
echo "== The sample bundles, staged under a demo device root"
export VORLUND_ROOT="$work/root"
export VORLUND_SERIAL_NUMBER=DEMO0001
stress="$VORLUND_ROOT/BrindleInternal/Library/Bundles/Stress"
mkdir -p "$stress"
cp -r "$top/$build"/bundles/*.bundle "$stress/"
"$ctl" list
echo
echo "== Running sample test cases from the bundle (in this process: --local)"
"$ctl" run "Sample Ping Gateway" --local --iterations 3
"$ctl" run "Sample Throughput" --local --option Megabits=240
"$ctl" run "Sample Latency Histogram" --local --iterations 2
"$ctl" run "Sample Sleep" --local --option Seconds=1
"$ctl" run "Sample Failure" --local --option "Reason=Radio off" || true
echo
echo "== A sample helper crashes on purpose; the crash scan finds its report and adds the crash"
"$ctl" run "Sample Crashing Helper" --local
"$ctl" scan
echo
echo "== The network bundle measures for real against servers of the demo's own on loopback"
free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
mkdir -p "$work/www"
head -c 16777216 /dev/urandom > "$work/www/16MiB.bin"
http_port=$(free_port)
python3 -m http.server --bind 127.0.0.1 --directory "$work/www" "$http_port" >/dev/null 2>&1 &
http_server=$!
iperf_port=$(free_port)
# Whatever happens from here on, the servers the demo started end with it.
trap 'kill "$http_server" 2>/dev/null || true; "$ctl" measure iperf-server stop >/dev/null 2>&1 || true' EXIT
"$ctl" measure iperf-server start --iperf3 --port "$iperf_port"
for _ in $(seq 100); do
  (exec 3<>"/dev/tcp/127.0.0.1/$http_port") 2>/dev/null && break
  sleep 0.05
done
"$ctl" run "Network Ping" --local --option Host=127.0.0.1
"$ctl" run "Network Download" --local --option "URL=http://127.0.0.1:$http_port/16MiB.bin"
"$ctl" run "Network Iperf" --local --option Server=127.0.0.1 --option Tool=iperf3 \
  --option Seconds=2 --option "Port=$iperf_port"
"$ctl" measure ping 127.0.0.1 --count 3 --interval 0.2
"$ctl" measure iperf-server stop
kill "$http_server"
wait "$http_server" 2>/dev/null || true
echo
echo "== More results recorded from the shell with vorlundctl results"
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
echo "== The stress service on a private session bus: it takes the run over, runs test cases for"
echo "   vorlundctl and keeps the results vorlundctl records, then suspends the run when stopped"
export VORLUND_DAEMON="$top/$build/tools/Vorlund" ctl
dbus-run-session -- bash -euo pipefail <<'SERVICE'
"$VORLUND_DAEMON" &
daemon=$!
for _ in $(seq 200); do
  if dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
      org.freedesktop.DBus.NameHasOwner string:com.brindle.Vorlund | grep -q "boolean true"; then
    break
  fi
  sleep 0.05
done
echo "Vorlund (pid $daemon) owns com.brindle.Vorlund"
"$ctl" run "Sample Ping Gateway" --iterations 2
"$ctl" run "Sample Latency Histogram"
"$ctl" results add --name "WiFi Ping Gateway" --type PassFail --pass --tag band=5GHz
kill -TERM "$daemon"
wait "$daemon"
echo "Vorlund stopped; its run is suspended for the next command or start"
SERVICE
echo
"$ctl" results show
echo
echo "== The run's log folder published into the sync folders, then taken off the device"
"$ctl" sync add "$HOME/Library/Logs/Vorlund" --name VorlundLogs
"$ctl" sync list
"$ctl" sync collect --to "$work/collected" | tail -n 3
