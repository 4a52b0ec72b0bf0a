#!/usr/bin/env bash
# Records the fuzz seeds of tests/testdata from the real programs of a build: the demo's run (its
# results file and resume data, the sample definition archived), the sample bundle's test case
# entries, and a preferences file, all written by vorlundctl. Run it again when those formats change.
# Usage: fuzz/make_seeds.sh BUILD_DIR (a build of the tools and bundles, not a fuzz build)
set -euo pipefail

build=${1:?usage: make_seeds.sh BUILD_DIR}
top="$(cd "$(dirname "$0")/.." && pwd)"
ctl="$top/$build/tools/vorlundctl"
data="$top/tests/testdata"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The demo leaves its run under the build folder.
bash "$top/scripts/demo.sh" "$build" >/dev/null
demo="$top/$build/demo"
mkdir -p "$data/test-cases" "$data/preferences" "$data/results"
cp "$demo"/home/Library/Logs/Vorlund/Results/VorlundResults_*.plist "$data/results/results.plist"
cp "$demo/home/Library/Caches/vorlund_results_resume_data.plist" "$data/results/resume_data.plist"

# A definition in each of its forms: keyed archive, JSON as decode prints it, property lists.
cp "$demo/test_case.archive" "$data/test-cases/test_case.archive"
"$ctl" decode "$demo/test_case.archive" >"$data/test-cases/test_case.json"
"$ctl" encode --class VLTestCaseObject --format xml "$top/samples/test_case.json" \
  "$data/test-cases/test_case_xml.plist"
"$ctl" encode --class VLTestCaseObject --format binary "$top/samples/test_case.json" \
  "$data/test-cases/test_case_binary.plist"

# Each "Supported Test Cases" entry of the sample bundle, as withBundleSettings reads it.
mkdir "$work/entries"
"$ctl" decode "$top/$build/bundles/SampleStress.bundle/Info.plist" >"$work/info.json"
python3 - "$work/info.json" "$work/entries" <<'PY'
import json, sys
entries = json.load(open(sys.argv[1]))["Supported Test Cases"]
for key, entry in entries.items():
    # The sample bundle lists one entry that is not a dictionary, on purpose; it has no file form.
    if isinstance(entry, dict):
        json.dump(entry, open(f"{sys.argv[2]}/{key.lower()}.json", "w"))
PY
for entry in "$work"/entries/*.json; do
  name=$(basename "$entry" .json)
  "$ctl" encode --class NSDictionary --format xml "$entry" "$data/test-cases/bundle_entry_$name.plist"
done

# Preferences of a run: its stress type, environments in both shapes, option overrides.
cat >"$work/settings.json" <<'JSON'
{
  "StressType": "WiFi",
  "StressSubtype": "Office",
  "Config": "Office Walk",
  "SerialNumber": "DEMO0001",
  "FailureCallbackMax": 5,
  "Options Overrides": {"$gateway": "192.168.1.1", "$SampleMegabits": 240},
  "Environments": {
    "Office": ["Sample Ping Gateway", {"Name": "Sample Throughput"}],
    "Walk": {"TestCaseArray": ["Sample Sleep", {"Name": "Sample Failure"}, {"Options": {}}]}
  }
}
JSON
"$ctl" encode --class NSDictionary --format xml "$work/settings.json" \
  "$data/preferences/Settings.plist"
"$ctl" encode --class NSDictionary --format binary "$work/settings.json" \
  "$data/preferences/Settings_binary.plist"
