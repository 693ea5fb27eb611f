#!/usr/bin/env bash
# Configures a build directory with Ninja, as the test script and the demo build: Ninja starts
# no process of its own per target (make runs cmake for each target's dependencies and
# progress), which is a tenth of a build's CPU time and most of cpack's install step. A
# directory configured earlier with another generator is emptied first, since CMake cannot
# switch generators in place. Usage: scripts/configure.sh BUILD_DIR [cmake options...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1
shift
if [ -f "$dir/CMakeCache.txt" ] && ! grep -qx 'CMAKE_GENERATOR:INTERNAL=Ninja' "$dir/CMakeCache.txt"; then
  rm -rf "$dir"
fi
cmake -S . -B "$dir" -G Ninja "$@"
