#!/usr/bin/env bash
# demo-host.sh: makes a software-TPM host for a local daemon started by
# scripts/run.sh, and prints the shell lines that point witnessctl and the
# agent at it (use: eval "$(./scripts/demo-host.sh)").
#
# It waits until the daemon answers (run.sh may still be building), then:
#   - manufactures a swtpm (EK certificate from a local CA under demo/) and
#     runs it on 127.0.0.1:$SWTPM_PORT (default 2321; control port + 1),
#   - writes the TPM's EK public key to demo/ek.pem,
#   - boots the host: power-cycles the swtpm, measures the agent's synthetic
#     hypervisor boot into it and writes that boot's event log to
#     demo/boot.log (what a real host's firmware leaves in
#     /sys/kernel/security/tpm0/binary_bios_measurements),
#   - writes demo/imgdb.tgz, a signed image database that trusts the agent's
#     synthetic boot, and installs its signing certificates under the
#     sysroot's /usr/share/certs (as a hypervisor maker's would be),
#   - mints a one-hour administrator token with the sysroot's issuer key.
# Progress goes to standard error; standard output holds only `export` lines.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${WITNESSD_BUILD:-$top/build}
sysroot=${WITNESSD_SYSROOT:-$top/sysroot}
demo=${DEMO_DIR:-$top/demo}
port=${SWTPM_PORT:-2321}
daemon_port=${WITNESSD_PORT:-7889}
say() { echo "demo-host: $*" >&2; }

say "waiting for the daemon on port $daemon_port"
for _ in $(seq 1 3600); do
  curl -fs -o /dev/null "http://127.0.0.1:$daemon_port/metrics" && break
  sleep 0.5
done
curl -fs -o /dev/null "http://127.0.0.1:$daemon_port/metrics" || { say "the daemon does not answer"; exit 1; }

mkdir -p "$demo/tpm" "$demo/xdg"
if [ ! -e "$demo/tpm/state/tpm2-00.permall" ]; then
  say "manufacturing the software TPM in $demo/tpm"
  ca="$demo/tpm/localca"
  mkdir -p "$ca" "$demo/tpm/state"
  printf 'statedir = %s\nsigningkey = %s/signkey.pem\nissuercert = %s/issuercert.pem\ncertserial = %s/certserial\n' \
    "$ca" "$ca" "$ca" "$ca" > "$demo/tpm/swtpm-localca.conf"
  printf -- '--platform-manufacturer Witnessd\n--platform-version 2.1\n--platform-model DemoHost\n' \
    > "$demo/tpm/swtpm-localca.options"
  printf 'create_certs_tool = swtpm_localca\ncreate_certs_tool_config = %s\ncreate_certs_tool_options = %s\nactive_pcr_banks = sha256\n' \
    "$demo/tpm/swtpm-localca.conf" "$demo/tpm/swtpm-localca.options" > "$demo/tpm/swtpm_setup.conf"
  XDG_CONFIG_HOME="$demo/xdg" swtpm_setup --tpm2 --tpmstate "$demo/tpm/state" --create-ek-cert \
    --create-platform-cert --pcr-banks sha256 --config "$demo/tpm/swtpm_setup.conf" --overwrite \
    > "$demo/tpm/setup.log" 2>&1
fi
if [ -e "$demo/tpm/swtpm.pid" ] && kill -0 "$(cat "$demo/tpm/swtpm.pid")" 2>/dev/null; then
  kill "$(cat "$demo/tpm/swtpm.pid")"
  sleep 0.5
fi
say "starting swtpm on 127.0.0.1:$port"
swtpm socket --tpm2 --tpmstate "dir=$demo/tpm/state" --daemon --pid "file=$demo/tpm/swtpm.pid" \
  --server "type=tcp,bindaddr=127.0.0.1,port=$port" --ctrl "type=tcp,bindaddr=127.0.0.1,port=$((port + 1))" \
  --flags not-need-init,startup-clear --log "file=$demo/tpm/swtpm.log"

"$build/tools/witnessd-agent" --swtpm-port "$port" --ek-only > "$demo/ek.pem"
say "EK public key in $demo/ek.pem"
"$build/tools/witnessd-agent" --swtpm-port "$port" --measure-boot "$demo/boot.log"
say "host booted; its event log in $demo/boot.log"

mkdir -p "$sysroot/usr/share/certs"
# shellcheck disable=SC2046 # the flags are words
python3 "$top/tests/trusted/make_imgdb.py" --ca-dir "$demo/imgdb-ca" --out "$demo/imgdb.tgz" \
  --certs-out "$sysroot/usr/share/certs" $("$build/tools/witnessd-agent" --imgdb-flags)
say "image database in $demo/imgdb.tgz; its signers' certificates in $sysroot/usr/share/certs"

token=$("$build/tools/witnessctl" token create --issuer-key "$sysroot/etc/quarro/cpservices/witnessd/admin-issuer.key" \
  --subject admin --entitlement Attestation.Administer --entitlement Attestation.Read)
say "administrator token minted (witnessctl token create, valid one hour)"
echo "export WITNESSD_TOKEN=$token"
echo "export SWTPM_PORT=$port"
