#!/usr/bin/env bash
# Installs dependencies, builds, prepares a sysroot inside the repository and
# runs the daemon in the foreground against it (Ctrl-C stops it).
# WITNESSD_BUILD=DIR runs an existing build in DIR as it is: no dependency
# install, no build (the walk-through test uses it).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${WITNESSD_BUILD:-}
if [ -z "$build" ]; then
  build="$top/build"
  "$top/scripts/deps.sh"
  "$top/scripts/build.sh" "$build"
fi
sysroot=${WITNESSD_SYSROOT:-$top/sysroot}
"$top/scripts/sysroot.sh" "$build" "$sysroot"
echo "witnessd: sysroot $sysroot, port ${WITNESSD_PORT:-7889}" >&2
WITNESSD_SYSROOT=$sysroot exec "$build/daemon/witnessd"
