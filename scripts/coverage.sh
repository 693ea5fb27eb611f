#!/usr/bin/env bash
# Line and region coverage of the sub-service, the transport library and the reference manager
# by the whole test suite: a clang build with source-based coverage in build-cov, every test run
# (the programs the tests start write their own profiles), one report per source file.
# Usage: scripts/coverage.sh [ctest -R regex]. The table goes to stdout and build-cov/coverage.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
dir="$root/build-cov"
flags="-fprofile-instr-generate -fcoverage-mapping"
cmake -S . -B "$dir" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_SHARED_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$dir" -j"$(nproc)" >/dev/null
rm -rf "$dir/profiles" && mkdir -p "$dir/profiles"
(cd "$dir" && LLVM_PROFILE_FILE="$dir/profiles/%p-%m.profraw" \
  ctest -j"$(nproc)" --timeout 300 ${1:+-R "$1"} >"$dir/ctest.log" 2>&1) ||
  echo "coverage: some tests failed (see $dir/ctest.log)" >&2
llvm-profdata merge -sparse "$dir"/profiles/*.profraw -o "$dir/suite.profdata"
objects=()
for binary in zelparser zelrzp-manager libzelrzptransport.so; do
  objects+=(-object "$dir/bin/$binary")
done
for binary in "$dir"/tests/*_tests "$dir"/tests/lint/*_tests; do
  [ -x "$binary" ] && objects+=(-object "$binary")
done
llvm-cov report -instr-profile="$dir/suite.profdata" "${objects[@]:1}" \
  "$root/parser" "$root/transport" "$root/manager" | sed "s|$root/||" | tee "$dir/coverage.txt"
