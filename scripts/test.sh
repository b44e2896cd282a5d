#!/usr/bin/env bash
# Installs dependencies, builds and runs every test. With --sanitize the build
# goes to build-asan with AddressSanitizer and UndefinedBehaviorSanitizer.
# With --tsan, build-tsan gets a ThreadSanitizer build of the daemon and the
# concurrent attestation test, which runs alone: a race the daemon or the test
# reports fails it.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
if [ "${1:-}" = "--tsan" ]; then
  dir="$top/build-tsan"
  cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWITNESSD_TSAN=ON -DWITNESSD_BENCH=OFF "${@:2}" >/dev/null
  cmake --build "$dir" -j "$(nproc)" --target witnessd witnessd_concurrent_attestation_tests
  export TSAN_OPTIONS="second_deadlock_stack=1 history_size=4"
  exec ctest --test-dir "$dir" --output-on-failure --timeout 1800 -R 'ConcurrentAttestation\.'
elif [ "${1:-}" = "--sanitize" ]; then
  dir="$top/build-asan"
  "$top/scripts/build.sh" "$dir" -DCMAKE_BUILD_TYPE=Debug -DWITNESSD_SANITIZE=ON
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
else
  dir="$top/build"
  "$top/scripts/build.sh" "$dir"
fi
ctest --test-dir "$dir" --output-on-failure -j 2 --timeout 600
