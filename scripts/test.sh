#!/usr/bin/env bash
# Installs dependencies, builds and runs every test. With --sanitize the build
# goes to build-asan with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
if [ "${1:-}" = "--sanitize" ]; then
  dir="$top/build-asan"
  "$top/scripts/build.sh" "$dir" -DCMAKE_BUILD_TYPE=Debug -DWITNESSD_SANITIZE=ON
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
else
  dir="$top/build"
  "$top/scripts/build.sh" "$dir"
fi
ctest --test-dir "$dir" --output-on-failure -j 2 --timeout 600
