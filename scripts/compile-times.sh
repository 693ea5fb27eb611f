#!/usr/bin/env bash
# Where a build's compile time goes: configures the build (plain, asan, tsan or demo, with the
# options scripts/test.sh and scripts/demo.sh give it) in a scratch directory, builds it and
# prints the CPU time (user + system) of each compile and link, largest first, then their sum.
# Usage: scripts/compile-times.sh plain|asan|tsan|demo [DIR [cmake options...]]
# (DIR default /tmp/zel-compile-times-BUILD, emptied first; JOBS default 1). With clang, add
# -DCMAKE_CXX_FLAGS=-ftime-trace to get each file's trace (DIR/**/*.json) of its headers,
# template instantiations and code generation.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:?plain, asan, tsan or demo}"
dir="${2:-/tmp/zel-compile-times-$build}"
shift $(($# < 2 ? $# : 2))
case "$build" in
  plain) options=(-DZEL_WERROR=ON -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG"
    -DZEL_MANAGER_OPT=-O1) targets=() ;;
  asan) options=(-DZEL_WERROR=ON -DCMAKE_CXX_COMPILER=clang++ -DZEL_ASAN=ON -DZEL_FUZZ=ON) targets=() ;;
  tsan) options=(-DZEL_WERROR=ON -DCMAKE_CXX_COMPILER=clang++ -DZEL_TSAN=ON) targets=() ;;
  demo) options=(-DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -DNDEBUG" -DZEL_TESTS=OFF)
        targets=(--target zelparser zelrzp-manager) ;;
  *) echo "unknown build: $build" >&2; exit 2 ;;
esac
rm -rf "$dir" && mkdir -p "$dir"
# The compiler and the linker are started through this launcher, which appends each one's
# CPU seconds and output file to the log.
cat > "$dir/launcher" <<'LAUNCHER'
#!/bin/sh
out=
prev=
for a in "$@"; do [ "$prev" = -o ] && out=$a; prev=$a; done
exec /usr/bin/time -a -o "$ZEL_TIMES_LOG" -f "%U %S $out" "$@"
LAUNCHER
chmod +x "$dir/launcher"
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER_LAUNCHER="$dir/launcher" \
  -DCMAKE_CXX_LINKER_LAUNCHER="$dir/launcher" "${options[@]}" "$@" >/dev/null
ZEL_TIMES_LOG="$dir/times.log" cmake --build "$dir" -j"${JOBS:-1}" "${targets[@]}" >/dev/null
awk '{ printf "%7.2f s  %s\n", $1 + $2, $3 }' "$dir/times.log" | sort -rn
awk '{ sum += $1 + $2 } END { printf "%7.2f s  in all (%d compiles and links)\n", sum, NR }' \
  "$dir/times.log"
