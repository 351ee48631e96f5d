#!/usr/bin/env bash
# Installs the Debian packages Kestrix builds against. Does nothing when they are present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libgtest-dev googletest libbenchmark-dev
  coinor-libipopt-dev libmumps-seq-dev libsuitesparse-dev
  nlohmann-json3-dev libfmt-dev libsundials-dev zlib1g-dev
  python3 python3-venv chromium  # the Python client and its tests; the report page test
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
