#!/usr/bin/env bash
# build.sh DIR [cmake args...]: configures and builds the project into DIR.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$1; shift
cmake -S "$top" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
