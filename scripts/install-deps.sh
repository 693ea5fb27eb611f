#!/usr/bin/env bash
# Installs what the build, the tests, the benchmarks and the fuzzer need, when missing.
# Usage: scripts/install-deps.sh [demo]   (demo: only what the sub-service and zelrzp-manager need)
set -euo pipefail
packages=(cmake g++ make pkg-config nlohmann-json3-dev libpugixml-dev librpm-dev libpci-dev pci.ids)
if [ "${1:-}" != demo ]; then
  packages+=(libgtest-dev libgmock-dev libbenchmark-dev libexpat1-dev
             clang libclang-rt-14-dev)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi
