#!/usr/bin/env bash
# Builds the sub-service and the reference manager and shows the install plan of the example
# bundle on a simulated distribution. Only the plan goes to standard output (the installs and
# the build report on standard error), so `scripts/demo.sh --json | python3 -m json.tool`
# works. The exit status is zelrzp-manager's (1: the example's findings are shown).
# Usage: scripts/demo.sh [zelrzp-manager options]
set -euo pipefail
cd "$(dirname "$0")/.."
{
  bash scripts/install-deps.sh demo
  # The two programs and the transport library, nothing else, at -O1 and without debug
  # information: the demo's one run takes a fraction of a second either way, and -O2 and
  # debug information are a third of the compile that a newcomer waits for.
  bash scripts/configure.sh build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -DNDEBUG" -DZEL_TESTS=OFF
  cmake --build build-demo -j"$(nproc)" --target zelparser zelrzp-manager
} >&2
distro=(--distro=rh73)
for arg in "$@"; do
  case "$arg" in --distro*|--release*|--all-distros) distro=() ;; esac
done
exec build-demo/bin/zelrzp-manager "${distro[@]}" "$@" -- examples/server-bundle
