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
for f in usr/sbin/witnessd usr/bin/witnessctl usr/bin/witnessd-agent usr/lib/quarro/lumen/attest_lumen_metadata.json \
         etc/quarro/cpservices/witnessd/config.xml usr/lib/systemd/system/witnessd.service \
         usr/lib/systemd/system/witnessd-agent.service etc/default/witnessd-agent usr/lib/sysusers.d/witnessd.conf; do
  [ -e "$root/$f" ] || fail "missing /$f"
done
[ -x "$root/usr/sbin/witnessd" ] || fail "daemon not executable"
[ -x "$root/usr/bin/witnessd-agent" ] || fail "agent not executable"

# The units, checked with the host's base units beside them: the hardening
# both share, then what each has of its own (the agent: no capabilities, the
# TPM as its only device).
cp -rn /lib/systemd/system/. "$root/usr/lib/systemd/system/"
shared=("ProtectSystem=strict" "ProtectHome=yes" "NoNewPrivileges=yes" "PrivateTmp=yes" "CapabilityBoundingSet="
        "RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX" "MemoryDenyWriteExecute=yes" "ProtectKernelTunables=yes"
        "SystemCallFilter=@system-service" "SystemCallFilter=~@privileged @resources" "UMask=0077"
        "Restart=on-failure")
declare -A own=(
  [witnessd.service]="User=witnessd|StateDirectory=quarro/witnessd|PrivateDevices=yes"
  [witnessd-agent.service]="StateDirectory=witnessd-agent|DevicePolicy=closed|DeviceAllow=/dev/tpmrm0 rw|SupplementaryGroups=tss"
)
for name in witnessd.service witnessd-agent.service; do
  systemd-analyze verify --root="$root" "$name" || fail "systemd-analyze verify $name"
  unit=$root/usr/lib/systemd/system/$name
  IFS='|' read -r -a lines <<< "${own[$name]}"
  for line in "${shared[@]}" "${lines[@]}"; do
    grep -qxF "$line" "$unit" || fail "$name lacks $line"
  done
done
grep -q "^ExecStart=/usr/bin/witnessd-agent --tcti device:/dev/tpmrm0 " "$root/usr/lib/systemd/system/witnessd-agent.service" \
  || fail "the agent unit does not attest through /dev/tpmrm0"

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
