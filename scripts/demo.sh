#!/usr/bin/env bash
# Builds the sub-service and the reference manager and shows the install plan of the example
# bundle on a simulated distribution. Usage: scripts/demo.sh [zelrzp-manager options]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_TESTS=OFF >/dev/null
cmake --build build -j"$(nproc)" --target zelparser zelrzp-manager
exec build/bin/zelrzp-manager --distro rh73 "$@" examples/server-bundle
