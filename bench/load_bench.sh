#!/usr/bin/env bash
# load_bench.sh [BUILD_DIR]: end-to-end attestation load on a real daemon over
# loopback. Software hosts carry EK certificates from a load-test CA that the
# script declares through the API (endorsement keys not required, certificate
# validation on), so any number of hosts attest without per-host set-up; the
# base image the script imports trusts their boot.
#
# It measures, in one run:
#   - attestations per second with 32 concurrent hosts, and the daemon's CPU
#     time (from /proc) per attestation against a bare RSA-2048 PKCS#1
#     signature (openssl speed) timed in the same run;
#   - the latency of single Report calls (turns) with 4 concurrent hosts;
#   - the daemon's resident memory per live session, 10,000 sessions held
#     open (500 hosts x 20) after their first turn, then after sending their
#     event log but not their quote; each on a freshly started daemon.
# Every failed attestation is counted under its error id and printed.
# LOAD_COUNT (2000) and LATENCY_COUNT (400) set the attestations of the first
# two runs; LOAD_MEMORY=0 skips the memory runs. The machine's other load
# makes every figure noisy; the CPU ratio compares with a reference taken in
# the same run.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build}
count=${LOAD_COUNT:-2000}
latency_count=${LATENCY_COUNT:-400}
hosts=500
per_host=20
agent=$build/tools/witnessd-agent
ctl=$build/tools/witnessctl

work=$(mktemp -d)
daemon_pid=""
trap '[ -z "$daemon_pid" ] || kill "$daemon_pid" 2>/dev/null || true; rm -rf "$work"' EXIT
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
say() { echo "load_bench: $*" >&2; }

"$top/scripts/sysroot.sh" "$build" "$work/sysroot"
etc=$work/sysroot/etc/quarro/cpservices/witnessd
cat > "$etc/config.xml" <<XML
<config><log><level>warning</level></log><maxSessions>10000</maxSessions><maxSessionsPerEk>$per_host</maxSessionsPerEk><sessionTimeoutSeconds>1800</sessionTimeoutSeconds></config>
XML
# The base image's signers are read from the sysroot: in place before start.
# shellcheck disable=SC2046 # the flags are words
python3 "$top/tests/trusted/make_imgdb.py" --ca-dir "$work/imgdb-ca" --out "$work/imgdb.tgz" \
  --certs-out "$work/sysroot/usr/share/certs" $("$agent" --imgdb-flags)
WITNESSD_PORT=$(free_port)
export WITNESSD_PORT

start_daemon() {
  WITNESSD_SYSROOT=$work/sysroot "$build/daemon/witnessd" 2>>"$work/daemon.log" &
  daemon_pid=$!
  for _ in $(seq 200); do
    curl -fs -o /dev/null "http://127.0.0.1:$WITNESSD_PORT/metrics" && return 0
    sleep 0.1
  done
  say "the daemon does not answer"; cat "$work/daemon.log" >&2; exit 1
}
stop_daemon() {
  kill "$daemon_pid"
  wait "$daemon_pid" 2>/dev/null || true
  daemon_pid=""
}
cpu_ticks() { awk '{print $14 + $15}' "/proc/$daemon_pid/stat"; }
rss_kib() { awk '$1 == "VmRSS:" {print $2}' "/proc/$daemon_pid/status"; }
# load ARGS...: software hosts with EK certificates from the load-test CA.
load() {
  "$agent" --software --certificate --ek-ca-key "$work/ca.key" --ek-ca-cert "$work/ca.pem" "$@" || true
}
field() { awk -v k="$1" '{for (i = 1; i < NF; i++) if ($i == k) {print $(i + 1); exit}}'; }

start_daemon
WITNESSD_TOKEN=$("$ctl" token create --issuer-key "$etc/admin-issuer.key" --subject admin \
  --entitlement Attestation.Administer --entitlement Attestation.Read)
export WITNESSD_TOKEN
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/ca.key" -out "$work/ca.pem" -days 30 \
  -subj "/CN=witnessd load-test EK CA" -addext basicConstraints=critical,CA:TRUE \
  -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null
"$ctl" tpm2 settings update --require-endorsement-keys false --require-certificate-validation true >/dev/null
"$ctl" ca-certificates create --name load-test --certificates "@$work/ca.pem" >/dev/null
"$ctl" base-images import --imgdb "$work/imgdb.tgz" >/dev/null

say "$count attestations, 32 at a time"
ticks_before=$(cpu_ticks)
load --count "$count" --concurrency 32 > "$work/throughput.out"
ticks_after=$(cpu_ticks)
say "reference: RSA-2048 signatures"
# Machine-readable speed output gives signatures per second.
sign_seconds=$(openssl speed -mr -seconds 3 rsa2048 2>/dev/null | awk -F: '$1 == "+F2" {print 1 / $4}')
say "$latency_count attestations, 4 at a time"
load --count "$latency_count" --concurrency 4 > "$work/latency.out"
cat "$work/throughput.out" "$work/latency.out" | grep '^failed ' >&2 || true
stop_daemon

# session_kib ARGS...: resident KiB per held session on a fresh daemon, after
# one attestation has warmed it up.
session_kib() {
  start_daemon
  load --count 1 > /dev/null
  sleep 0.5
  local before after
  before=$(rss_kib)
  load --count $((hosts * per_host)) --per-host "$per_host" --concurrency 4 "$@" > "$work/hold.out"
  grep '^failed ' "$work/hold.out" >&2 || true
  local held
  held=$(field held < "$work/hold.out")
  [ "$held" = $((hosts * per_host)) ] || say "only $held sessions held: $(head -1 "$work/hold.out")"
  sleep 0.5
  after=$(rss_kib)
  stop_daemon
  awk -v a="$after" -v b="$before" -v n=$((hosts * per_host)) 'BEGIN { printf "%.2f", (a - b) / n }'
}
first_turn_kib=skipped
log_kib=skipped
if [ "${LOAD_MEMORY:-1}" != 0 ]; then
  say "$((hosts * per_host)) sessions after their first turn"
  first_turn_kib=$(session_kib --max-turns 1)
  say "$((hosts * per_host)) sessions holding their event log"
  log_kib=$(session_kib --max-turns 4 --withhold-quote)
fi
log_bytes=$("$agent" --event-log-bytes)

ok=$(field ok < "$work/throughput.out")
ok2=$(field ok < "$work/latency.out")
failed=$(($(field failed < "$work/throughput.out") + $(field failed < "$work/latency.out")))
hz=$(getconf CLK_TCK)
printf 'attestations: %d ok, %d failed\n' $((ok + ok2)) "$failed"
printf 'attestations per second: %-14s (concurrency 32)\n' "$(field per-second < "$work/throughput.out")"
printf 'turn p50 ms: %-26s (concurrency 4)\n' "$(grep '^turns ' "$work/latency.out" | field p50)"
printf 'turn p99 ms: %-26s (concurrency 4)\n' "$(grep '^turns ' "$work/latency.out" | field p99)"
awk -v t=$((ticks_after - ticks_before)) -v hz="$hz" -v n="$ok" -v s="$sign_seconds" \
  'BEGIN { printf "daemon CPU per attestation / bare RSA-2048 sign: %.1f\n", (n > 0 ? t / hz / n : 0) / s }'
printf 'KiB per live session at 10000 (first turn): %s\n' "$first_turn_kib"
printf 'KiB per live session at 10000 (holding a %s KiB event log): %s\n' \
  "$(awk -v b="$log_bytes" 'BEGIN { printf "%.1f", b / 1024 }')" "$log_kib"
