#!/bin/bash
# Builds the fuzz targets with clang (AddressSanitizer + UBSan) in build-fuzz and fuzzes each
# for its share of SECONDS (default 60, split evenly) over a copy of its seed corpus
# fuzz/corpus/<target>. Exits non-zero when a fuzzer finds a crash, a leak or a timeout; the
# input is left in build-fuzz/artifacts/<target>-*. Keep such an input under
# tests/data/<target>/crashes so that the suite replays it.
# ZEL_FUZZ_TARGETS selects targets (default: all five). ZEL_FUZZ_BUILD names a build tree that
# is already configured with clang, ZEL_FUZZ and ZEL_ASAN (the test script's sanitizer build).
set -eu
SECONDS_TO_RUN=${1:-60}
TARGETS=${ZEL_FUZZ_TARGETS:-"xml packet readers frame records"}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${ZEL_FUZZ_BUILD:-$ROOT/build-fuzz}
if [ -z "${ZEL_FUZZ_BUILD:-}" ]; then
  cmake -S "$ROOT" -B "$BUILD" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZEL_FUZZ=ON -DZEL_ASAN=ON -DZEL_TESTS=OFF >/dev/null
fi
set -- $TARGETS
COUNT=$#
cmake --build "$BUILD" -j2 --target zelrzptransport $(printf 'fuzz_%s ' $TARGETS)
EACH=$((SECONDS_TO_RUN / COUNT))
[ "$EACH" -ge 1 ] || EACH=1
mkdir -p "$BUILD/artifacts"
for TARGET in $TARGETS; do
  rm -rf "$BUILD/corpus/$TARGET" && mkdir -p "$BUILD/corpus"
  cp -r "$ROOT/fuzz/corpus/$TARGET" "$BUILD/corpus/$TARGET"
  # Inputs no longer than what reaches every path: the tokenizer's target makes its lines
  # near the 16 KB limit itself (its 'R' inputs), the readers' seeds are under 4 KB, and a
  # frame reaches the transport's 32 KB limit only from a 40 KB input.
  case $TARGET in
    xml) MAX_LEN=4096 ;;
    readers) MAX_LEN=8192 ;;
    frame) MAX_LEN=40000 ;;
    *) MAX_LEN=20000 ;;
  esac
  # The tokenizer is built without comparison hooks; its words come from the dictionary.
  DICT=()
  case $TARGET in xml | readers) DICT=(-dict="$ROOT/fuzz/xml.dict") ;; esac
  echo "== fuzz_$TARGET for ${EACH}s"
  # A 16 MB quarantine rather than 256 MB: freed memory still waits out far more than one
  # input's allocations (a few hundred KB) before reuse, so a use after free within an input, or
  # from the last dozens, is still caught; a 256 MB one made every allocation cold memory,
  # about a third of each execution of the readers target.
  ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=16 "$BUILD/bin/fuzz_$TARGET" \
    -max_total_time="$EACH" -timeout=10 -max_len="$MAX_LEN" -print_final_stats=1 \
    -artifact_prefix="$BUILD/artifacts/$TARGET-" \
    "${DICT[@]}" "$BUILD/corpus/$TARGET"
done
