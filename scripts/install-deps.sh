#!/usr/bin/env bash
# Installs what building and testing CorvanthUtil needs on Debian 12; does
# nothing when everything is already there.
set -euo pipefail
packages=(g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev libssl-dev libinih-dev libsystemd-dev systemd dbus
          libzmq3-dev rapidjson-dev nlohmann-json3-dev clang iproute2 openssl)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
