#!/usr/bin/env bash
# The fleet demo: a manager and two devices on this machine. Each device has its own device root,
# home, serial number, session bus with its own stress service, and bridge on a gateway port of its
# own. Device A finds its peer through the manager, runs "RemoteEcho" whose "Echo" half runs on
# device B, and sends the host a command that the manager's king handler answers. Both devices'
# runs are printed, then collected into one fleet folder, whose aggregated view is printed and whose
# HTML report, JUnit file and JSON export are written. Everything the demo starts is stopped when it ends, also on failure.
set -euo pipefail
build=${1:-build}
top=$(cd "$(dirname "$0")/.." && pwd)
case $build in
  /*) out=$build ;;
  *) out="$top/$build" ;;
esac
bin="$out/tools"
ctl="$bin/vorlundctl"
# The demo's files (logs, results files, timelines) stay under the build folder unless a second
# argument names another folder.
work=${2:-"$out/demo-fleet"}
rm -rf "$work"
mkdir -p "$work"

started=()
stop_all() {
  local status=$?
  for ((i = ${#started[@]} - 1; i >= 0; i--)); do
    kill -TERM "${started[i]}" 2>/dev/null || true
  done
  for pid in "${started[@]}"; do
    # A process that ignores the stop for ten seconds is killed.
    for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  exit "$status"
}
trap stop_all EXIT INT TERM

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

wait_for_port() {
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.05
  done
  echo "nothing listens on port $1" >&2
  return 1
}

# The host's answer to "king" requests: it records the request and succeeds.
cat >"$work/king-handler.sh" <<'KING'
#!/usr/bin/env bash
request=$(cat)
echo "$request" >>"$(dirname "$0")/king-requests.jsonl"
KING
chmod +x "$work/king-handler.sh"

manager_port=$(free_port)
echo "== vorlund-manager --port $manager_port --king-handler king-handler.sh"
"$bin/vorlund-manager" --port "$manager_port" --king-handler "$work/king-handler.sh" \
  2>"$work/manager.log" &
started+=($!)
wait_for_port "$manager_port"

# The environment of device $1 (A or B): its home, device root, serial number, bus and gateway.
device_vars() {
  local dir="$work/device-$1"
  vars=(HOME="$dir/home" VORLUND_ROOT="$dir/root" VORLUND_SERIAL_NUMBER="FLEET-$1"
    DBUS_SESSION_BUS_ADDRESS="unix:path=$dir/bus" VORLUND_GATEWAY_PORT="$(cat "$dir/gateway-port")")
}

# Runs a command as device $1.
as_device() {
  local device=$1
  shift
  device_vars "$device"
  env "${vars[@]}" "$@"
}

# Starts a long-running program as device $1 in the background, its standard error into $2. env
# replaces itself with the program, so the process id kept in started is the program's own.
start_as_device() {
  local device=$1 log=$2
  shift 2
  device_vars "$device"
  env "${vars[@]}" "$@" 2>"$log" &
  started+=($!)
}

start_device() {
  local device=$1 dir="$work/device-$1"
  mkdir -p "$dir/home" "$dir/root/etc" "$dir/root/BrindleInternal/Library/Bundles/Stress"
  # Each device has an identity of its own: its unique identifier comes from its machine id.
  python3 -c 'import uuid; print(uuid.uuid4().hex)' >"$dir/root/etc/machine-id"
  cp -r "$out"/bundles/*.bundle "$dir/root/BrindleInternal/Library/Bundles/Stress/"
  free_port >"$dir/gateway-port"
  dbus-daemon --session --nofork --address="unix:path=$dir/bus" 2>/dev/null &
  started+=($!)
  for _ in $(seq 200); do [ -S "$dir/bus" ] && break; sleep 0.05; done
  start_as_device "$device" "$dir/service.log" "$bin/Vorlund"
  for _ in $(seq 200); do
    if as_device "$device" dbus-send --session --print-reply --dest=org.freedesktop.DBus \
        /org/freedesktop/DBus org.freedesktop.DBus.NameHasOwner string:com.brindle.Vorlund |
        grep -q "boolean true"; then
      break
    fi
    sleep 0.05
  done
  start_as_device "$device" "$dir/bridge.log" "$bin/VorlundBridge" \
    --manager "127.0.0.1:$manager_port"
  wait_for_port "$(cat "$dir/gateway-port")"
  echo "device $device: serial FLEET-$device, gateway port $(cat "$dir/gateway-port")"
}

echo "== Starting two devices"
start_device A
start_device B
for _ in $(seq 200); do
  [ "$(grep -c 'Connected' "$work/manager.log" || true)" -ge 2 ] && break
  sleep 0.05
done

echo
echo "== Device B: vorlundctl run FindPeers"
as_device B "$ctl" run FindPeers --option MinimumPeers=0
echo
echo "== Device A: vorlundctl run FindPeers"
as_device A "$ctl" run FindPeers
echo
echo "== Device A: vorlundctl run RemoteEcho --option peer=FLEET-B"
as_device A "$ctl" run RemoteEcho --option peer=FLEET-B --option "Message=Echo from A"
echo
echo "== Device A: vorlundctl run KingCommand --option Command=collect-logs"
as_device A "$ctl" run KingCommand --option Command=collect-logs
echo "the host's king handler received: $(cat "$work/king-requests.jsonl")"
echo
echo "== vorlund-manager --status"
"$bin/vorlund-manager" --status --manager "127.0.0.1:$manager_port"

echo
for device in A B; do
  echo "== Device $device: vorlundctl results show"
  as_device "$device" "$ctl" results show
  echo
done
# The host's view of the fleet: each device's run collected into one folder, merged, reported.
fleet="$work/fleet"
host=(env HOME="$work/host")
for device in A B; do
  echo "== Device $device: vorlundctl fleet collect $fleet"
  as_device "$device" "$ctl" fleet collect "$fleet"
done
echo
echo "== vorlundctl aggregate $fleet"
"${host[@]}" "$ctl" aggregate "$fleet"
echo
echo "== vorlundctl report $fleet --html fleet-report.html; export --junit fleet-junit.xml --json fleet.json"
"${host[@]}" "$ctl" report "$fleet" --html "$work/fleet-report.html"
"${host[@]}" "$ctl" export "$fleet" --junit "$work/fleet-junit.xml" --json "$work/fleet.json"
echo "HTML report: $work/fleet-report.html"
echo "JUnit:       $work/fleet-junit.xml"
echo "JSON:        $work/fleet.json"
echo
echo "Logs of the manager, services and bridges: $work"
