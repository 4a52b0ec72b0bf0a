#!/usr/bin/env bash
# Installs the Debian packages Vorlund builds and tests with. Idempotent: when every package is
# already there it only runs dpkg-query and exits. Usage: install-deps.sh [fuzz|coverage]
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libsqlite3-dev libplist-dev nlohmann-json3-dev libspdlog-dev libfmt-dev libpcre2-dev uuid-dev
  libcurl4-openssl-dev libsystemd-dev libcli11-dev libssl-dev
  libgtest-dev libgmock-dev libbenchmark-dev dbus sqlite3 python3 iputils-ping iperf iperf3 busybox
  systemd util-linux iproute2
  libjs-chart.js chromium libxml2-utils
)
if [[ "${1:-}" == fuzz ]]; then
  packages+=(clang libclang-rt-14-dev)
fi
if [[ "${1:-}" == coverage ]]; then
  packages+=(gcovr)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "install-deps: installing ${missing[*]}"
sudo=""
[[ $(id -u) -ne 0 ]] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
