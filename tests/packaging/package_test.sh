#!/usr/bin/env bash
# package_test.sh BUILD_DIR: builds the Debian package, unpacks it into a
# scratch root, checks that every file is where the daemon looks for it,
# verifies the systemd unit against that root, and runs the packaged daemon
# there (its fixed paths under the scratch root) until it serves.
set -euo pipefail
build=$1
work=$(mktemp -d)
pid=""
trap '[ -z "$pid" ] || kill "$pid" 2>/dev/null || true; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/out" >/dev/null) || fail "cpack"
deb=$(ls "$work"/out/witnessd_*.deb)
# Whole outputs first: grep -q ends a pipe early, and pipefail would count
# the writer's SIGPIPE as a failure.
info=$(dpkg-deb --info "$deb")
[[ "$info" == *"Depends: "*libssl3* ]] || fail "package does not depend on libssl3"
[[ "$info" == *"Depends: "*libprometheus-cpp-core1.0* ]] || fail "package does not depend on libprometheus-cpp-core1.0"
root=$work/root
dpkg-deb -x "$deb" "$root"
for f in usr/sbin/witnessd usr/bin/witnessctl usr/lib/quarro/lumen/attest_lumen_metadata.json \
         etc/quarro/cpservices/witnessd/config.xml usr/lib/systemd/system/witnessd.service \
         usr/lib/sysusers.d/witnessd.conf; do
  [ -e "$root/$f" ] || fail "missing /$f"
done
[ -x "$root/usr/sbin/witnessd" ] || fail "daemon not executable"

# The unit, checked with the host's base units beside it.
cp -rn /lib/systemd/system/. "$root/usr/lib/systemd/system/"
systemd-analyze verify --root="$root" witnessd.service || fail "systemd-analyze verify"
unit=$root/usr/lib/systemd/system/witnessd.service
for line in "User=witnessd" "ProtectSystem=strict" "StateDirectory=quarro/witnessd" "NoNewPrivileges=yes" \
            "PrivateTmp=yes" "RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX" "Restart=on-failure"; do
  grep -qx "$line" "$unit" || fail "unit lacks $line"
done
grep -q "^SystemCallFilter=" "$unit" || fail "unit has no system call filter"

# The packaged daemon finds its settings and metadata at the packaged paths.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
WITNESSD_SYSROOT=$root WITNESSD_PORT=$port "$root/usr/sbin/witnessd" 2>"$work/daemon.log" &
pid=$!
for _ in $(seq 100); do
  grep -q "HTTP endpoint listening on TCP port $port" "$work/daemon.log" && break
  kill -0 "$pid" 2>/dev/null || { cat "$work/daemon.log" >&2; fail "daemon exited"; }
  sleep 0.1
done
grep -q "HTTP endpoint listening on TCP port $port" "$work/daemon.log" || { cat "$work/daemon.log" >&2; fail "not serving"; }
reply=$(curl -s -X POST -H 'Content-Type: application/vnd.quarro.lumen.cleanjson' --data \
  '{"jsonrpc":"2.0","id":"1","method":"invoke","params":{"serviceId":"com.quarro.lumen.std.introspection.provider","operationId":"get","input":{}}}' \
  "http://127.0.0.1:$port/api")
[[ "$reply" == *'"id":"witnessd"'* ]] || fail "introspection answered: $reply"
cert=$(WITNESSD_PORT=$port "$root/usr/bin/witnessctl" certificate get) || fail "witnessctl certificate get"
[[ "$cert" == *"-----BEGIN CERTIFICATE-----"* ]] || fail "witnessctl answered: $cert"
kill -TERM "$pid"
wait "$pid" || fail "daemon exit status $?"
pid=""
echo "package ok"
