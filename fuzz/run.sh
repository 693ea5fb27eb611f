#!/bin/bash
# Builds the XML fuzz target with clang in build-fuzz and runs it for SECONDS (default 60) over
# a copy of fuzz/corpus. Exits non-zero when the fuzzer finds a crash, a leak or a timeout;
# the input is left in build-fuzz/artifacts/.
set -eu
SECONDS_TO_RUN=${1:-60}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$ROOT/build-fuzz
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZEL_FUZZ=ON -DZEL_TESTS=OFF >/dev/null
cmake --build "$BUILD" -j2 --target fuzz_xml
rm -rf "$BUILD/corpus" && cp -r "$ROOT/fuzz/corpus" "$BUILD/corpus"
mkdir -p "$BUILD/artifacts"
"$BUILD/bin/fuzz_xml" -max_total_time="$SECONDS_TO_RUN" -timeout=10 -max_len=20000 \
  -artifact_prefix="$BUILD/artifacts/" "$BUILD/corpus"
