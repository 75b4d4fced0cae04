#!/usr/bin/env bash
# Installs the Debian 12 packages vonet builds and tests with, if missing.
set -euo pipefail
packages=(g++ cmake make pkg-config binutils libgtest-dev libgmock-dev libbenchmark-dev
          libstb-dev libprotobuf-dev protobuf-compiler)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
