#!/usr/bin/env bash
# Installs what the build, the tests, the benchmarks and the fuzzer need, when missing.
set -euo pipefail
packages=(cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev libexpat1-dev libpugixml-dev
          nlohmann-json3-dev clang libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi
