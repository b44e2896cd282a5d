#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer (ASan + UBSan) in
# build-fuzz and runs each for a bounded time over its corpus; a crash fails.
# Usage: fuzz/run.sh [seconds per target, default 20]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-20}
dir="$top/build-fuzz"
CC=clang CXX=clang++ cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DWITNESSD_FUZZ=ON \
  -DWITNESSD_SANITIZE=ON -DWITNESSD_BENCH=OFF >/dev/null
targets=$(sed -n 's/^witnessd_fuzz_target(\([a-z0-9_]*\).*/\1/p' "$top/fuzz/CMakeLists.txt")
for t in $targets; do
  cmake --build "$dir" --target "fuzz_$t" -j2
done
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for t in $targets; do
  work=$(mktemp -d)
  # New inputs go to a scratch directory; the checked-in corpus is read only.
  "$dir/fuzz/fuzz_$t" -max_total_time="$seconds" -print_final_stats=1 "$work" "$top/fuzz/corpus/$t"
  rm -rf "$work"
done
