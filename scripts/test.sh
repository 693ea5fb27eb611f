#!/usr/bin/env bash
# Builds and runs the whole test suite: the plain build, the AddressSanitizer +
# UndefinedBehaviorSanitizer build (clang, with the fuzz targets), the ThreadSanitizer build
# (clang, the suites that run threads), and a bounded fuzzing run of
# every fuzz target (the seconds split between them). Usage: scripts/test.sh [fuzz-seconds]
# (default 60; 0 skips fuzzing). Prints each stage's wall and CPU time and the total's; the
# budget and the last figures are in docs/benchmarks.md ("The build budget").
set -euo pipefail
cd "$(dirname "$0")/.."
fuzz_seconds="${1:-60}"
started=$SECONDS
bash scripts/install-deps.sh
jobs=$(nproc)

run_suite() { # name, cmake options...
  local dir="build-ci-$1"; shift
  bash scripts/configure.sh "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest -j"$jobs" --output-on-failure --timeout 300)
}

stage() { # title, command...: runs the command and prints its wall and CPU time
  local title="$1"; shift
  echo "== $title"
  local TIMEFORMAT="-- $title: %0R s wall, %0U s user, %0S s system"
  time "$@"
}

# The plain build without debug information: nothing reads it, and it is a third of the compile.
# The sub-service and its libraries at -O2, where gcc's flow-based warnings see most; the
# manager program, C++ over the standard library and the JSON library, at -O1, which takes
# a third less time to compile.
stage "plain build" run_suite plain -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" \
  -DZEL_MANAGER_OPT=-O1
# The sanitizer build is clang's and builds the fuzz targets beside the suites (the libraries
# carry the fuzzers' coverage hooks), so that fuzzing below needs no build of its own; without
# fuzzing it builds no fuzz target.
fuzz=OFF
if [ "$fuzz_seconds" != 0 ] && [ -f fuzz/run.sh ]; then fuzz=ON; fi
ASAN_OPTIONS=detect_leaks=1 stage "AddressSanitizer + UndefinedBehaviorSanitizer build" \
  run_suite asan -DCMAKE_CXX_COMPILER=clang++ -DZEL_ASAN=ON -DZEL_FUZZ=$fuzz
# The ThreadSanitizer build builds and runs the suites that run threads (see tests/CMakeLists.txt);
# clang compiles it in two thirds of gcc's time, and gcc's warnings still stop the plain build.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" stage "ThreadSanitizer build" \
  run_suite tsan -DCMAKE_CXX_COMPILER=clang++ -DZEL_TSAN=ON
if [ "$fuzz" = ON ]; then
  ZEL_FUZZ_BUILD="$PWD/build-ci-asan" \
    stage "fuzzing every target for ${fuzz_seconds}s in all" bash fuzz/run.sh "$fuzz_seconds"
fi
# The whole script: its wall time and the CPU time of every command it waited for (each stage,
# the package check), from the shell's own cutime and cstime.
read -ra shell_stat < /proc/$$/stat
ticks=$(getconf CLK_TCK)
echo "-- total: $((SECONDS - started)) s wall, $(((shell_stat[15] + ticks / 2) / ticks)) s user," \
  "$(((shell_stat[16] + ticks / 2) / ticks)) s system"
echo "All test runs passed."
