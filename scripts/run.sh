#!/usr/bin/env bash
# Installs dependencies, builds, prepares a sysroot inside the repository and
# runs the daemon in the foreground against it (Ctrl-C stops it).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
"$top/scripts/build.sh" "$top/build"
sysroot=${WITNESSD_SYSROOT:-$top/sysroot}
"$top/scripts/sysroot.sh" "$top/build" "$sysroot"
echo "witnessd: sysroot $sysroot, port ${WITNESSD_PORT:-7889}" >&2
WITNESSD_SYSROOT=$sysroot exec "$top/build/daemon/witnessd"
