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
# A local administrator: an issuer key whose public half is the trusted
# issuers file, for `witnessctl token create` (kept when already there).
issuers="$root/etc/quarro/cpservices/witnessd/trusted_issuers.pem"
issuer_key="$root/etc/quarro/cpservices/witnessd/admin-issuer.key"
if [ ! -e "$issuers" ]; then
  (umask 077 && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$issuer_key" 2>/dev/null)
  openssl pkey -in "$issuer_key" -pubout -out "$issuers"
fi
