#!/usr/bin/env bash
# Line coverage of the product code by the whole test suite: a --coverage
# build in build-coverage (or $1), every test, then lcov. Prints the summary
# and writes build-coverage/coverage.info. Needs lcov (apt-get install lcov).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build-coverage}
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DWITNESSD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="--coverage" -DCMAKE_C_FLAGS="--coverage" -DCMAKE_EXE_LINKER_FLAGS="--coverage" >/dev/null
make -C "$build" -j"$(nproc)" >/dev/null
lcov --quiet --zerocounters --directory "$build"
(cd "$build" && ctest -j"$(nproc)" --output-on-failure >"$build/ctest.log" 2>&1) || { tail -30 "$build/ctest.log"; exit 1; }
lcov --quiet --capture --directory "$build" --output-file "$build/all.info" --ignore-errors gcov,source 2>/dev/null
# Product code only: not the tests, fuzz targets, generated protobuf code or system headers.
lcov --quiet --extract "$build/all.info" "$top/*" --output-file "$build/product.info"
lcov --quiet --remove "$build/product.info" "$top/tests/*" "$top/fuzz/*" "$top/bench/*" "*.pb.cc" "*.pb.h" \
  --output-file "$build/coverage.info"
lcov --summary "$build/coverage.info" 2>&1 | grep -E "lines|functions"
