#!/usr/bin/env bash
# sysroot.sh BUILD_DIR SYSROOT: lays out the directories and files the daemon
# reads under SYSROOT. Existing files (settings, store) are kept.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$1 root=$2
mkdir -p "$root/etc/quarro/cpservices/witnessd" "$root/usr/lib/quarro/lumen" \
         "$root/usr/share/certs" "$root/var/lib/quarro/witnessd" "$root/var/run/quarro" \
         "$root/var/log/quarro/witnessd"
settings="$root/etc/quarro/cpservices/witnessd/config.xml"
[ -e "$settings" ] || cp "$top/daemon/config.xml" "$settings"
if [ -e "$top/api/provider/attest_lumen_metadata.json" ]; then
  cp "$top/api/provider/attest_lumen_metadata.json" "$root/usr/lib/quarro/lumen/"
fi
