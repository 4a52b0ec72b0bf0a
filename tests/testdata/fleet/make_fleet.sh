#!/usr/bin/env bash
# Records the fleet of tests/testdata/fleet: three devices' real runs, each made by the real
# vorlundctl on a private device of its own (HOME, VORLUND_ROOT, serial number), with passes,
# failures in several buckets, metrics, histograms and crashes of wireless daemons. Each device
# leaves its results file in Plists/ and its timeline in Databases/, named as the device wrote them.
# Run it again when the results file or the timeline changes form.
# Usage: tests/testdata/fleet/make_fleet.sh BUILD_DIR (a build of the tools)
set -euo pipefail

build=${1:?usage: make_fleet.sh BUILD_DIR}
top="$(cd "$(dirname "$0")/../../.." && pwd)"
ctl="$top/$build/tools/vorlundctl"
out="$top/tests/testdata/fleet"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# No stress service: each command keeps the run in its files.
unset DBUS_SESSION_BUS_ADDRESS
export VORLUND_BUS=session DBUS_SESSION_BUS_ADDRESS="unix:path=$work/no-bus"

rm -rf "$out/Plists" "$out/Databases"
mkdir -p "$out/Plists" "$out/Databases"

# device SERIAL SEED: one device's run. SEED varies the failures and figures between devices.
device() {
  local serial=$1 seed=$2
  export HOME="$work/$serial/home" VORLUND_ROOT="$work/$serial/root" VORLUND_SERIAL_NUMBER=$serial
  mkdir -p "$HOME/Library/Logs/Vorlund" "$VORLUND_ROOT/BrindleInternal/Library/Bundles/Stress"
  cat >"$work/$serial/settings.json" <<JSON
{"StressType": "wifi", "StressSubtype": "Office", "Config": "Fleet Office", "SerialNumber": "$serial"}
JSON
  "$ctl" encode --class NSDictionary --format xml "$work/$serial/settings.json" \
    "$HOME/Library/Logs/Vorlund/Settings.plist" >/dev/null

  local i
  for i in $(seq 1 8); do
    if (( (i + seed) % 4 == 0 )); then
      "$ctl" results add --name "WiFi Ping Gateway" --type PassFail --fail "Request timed out" \
        --tag band=5GHz >/dev/null
    elif (( i == 3 && seed == 2 )); then
      "$ctl" results add --name "WiFi Ping Gateway" --type PassFail --fail "No route to host" \
        --tag band=2.4GHz >/dev/null
    else
      "$ctl" results add --name "WiFi Ping Gateway" --type PassFail --pass --tag band=5GHz >/dev/null
    fi
  done
  for i in $(seq 1 6); do
    if (( i == seed + 2 )); then
      "$ctl" results add --name "WiFi Throughput" --type Average --fail "Link lost" >/dev/null
    else
      "$ctl" results add --name "WiFi Throughput" --type Average --pass \
        --metric "Megabits=$(( 180 + 17 * i + 9 * seed ))" \
        --metric "Latency=$(( 12 + (i * seed) % 7 )).5" >/dev/null
    fi
  done
  for bucket in 1ch 6ch 11ch 6ch; do
    "$ctl" results add --name "WiFi Channel Histogram" --type HistogramByInstance \
      --fail "$bucket" >/dev/null
  done
  "$ctl" results add --name "WiFi Association" --type PassFail --fail "Auth rejected" >/dev/null
  "$ctl" results add --name "WiFi Association" --type PassFail --pass >/dev/null

  "$ctl" results add-issue --process wpa_supplicant --reason "wpa_supplicant - SIGSEGV" \
    --type Crash >/dev/null
  if (( seed != 1 )); then
    sleep 1
    "$ctl" results add-issue --process wpa_supplicant --reason "wpa_supplicant - SIGSEGV" \
      --type Crash >/dev/null
  fi
  if (( seed == 3 )); then
    "$ctl" results add-issue --process NetworkManager --reason "NetworkManager - SIGABRT" \
      --type Crash >/dev/null
  fi
  "$ctl" results add-issue --process Vorlund --reason "Radio reset requested" --type Failure \
    >/dev/null
  local saved
  saved=$("$ctl" results reset | sed -n 's/^saved \(.*\); the next.*$/\1/p')
  cp "$saved" "$out/Plists/"
  local timeline=${saved/VorlundResults/VorlundTimeline}
  timeline=${timeline%.plist}.db
  # The timeline keeps its latest rows in its write-ahead log; the recorded copy is one
  # self-contained file in rollback-journal mode.
  local copy="$out/Databases/$(basename "$timeline")"
  sqlite3 "$timeline" ".backup '$copy'"
  sqlite3 "$copy" "PRAGMA journal_mode=DELETE;" >/dev/null
  echo "$serial: $(basename "$saved")"
}

device FLEET0001 1
device FLEET0002 2
device FLEET0003 3
