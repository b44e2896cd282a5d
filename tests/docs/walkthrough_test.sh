#!/usr/bin/env bash
# walkthrough_test.sh SOURCE_DIR BUILD_DIR: runs the command block of
# docs/walkthrough.md, as written, in a scratch copy of the repository whose
# build/ is BUILD_DIR, on free ports; passes when the agent prints a token.
set -euo pipefail
src=$1 build=$2
scratch=$(mktemp -d)
daemon_pid=""
cleanup() {
  [ -n "$daemon_pid" ] && kill "$daemon_pid" 2>/dev/null || true
  [ -e "$scratch/demo/tpm/swtpm.pid" ] && kill "$(cat "$scratch/demo/tpm/swtpm.pid")" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT
for d in scripts tests api daemon; do ln -s "$src/$d" "$scratch/$d"; done
ln -s "$build" "$scratch/build"

commands=$(sed -n '/<!-- walkthrough -->/,/<!-- \/walkthrough -->/p' "$src/docs/walkthrough.md" | sed '/^</d;/^```/d')
[ "$(printf '%s\n' "$commands" | grep -c .)" -eq 5 ] || { echo "the walk-through is not five commands"; exit 1; }

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
free_pair() {  # a port whose successor is free too (the swtpm control channel)
  python3 -c '
import socket
while True:
    a = socket.socket(); a.bind(("127.0.0.1", 0)); p = a.getsockname()[1]
    try:
        b = socket.socket(); b.bind(("127.0.0.1", p + 1)); print(p); break
    except OSError:
        pass'
}
export WITNESSD_PORT=$(free_port) SWTPM_PORT=$(free_pair) WITNESSD_BUILD=$build
unset WITNESSD_SYSROOT WITNESSD_TOKEN DEMO_DIR

cd "$scratch"
# One shell runs the five lines, as a person would type them; the first line
# backgrounds the daemon, whose pid the shell reports on descriptor 3.
out=$( { printf '%s\n' "$commands" | sed '1s/&$/\& echo $! >\&3/' | bash -e; } 3> daemon.pid 2> walkthrough.err ) || {
  echo "a walk-through command failed:"; cat walkthrough.err; cat witnessd.log 2>/dev/null | tail -20; exit 1; }
daemon_pid=$(cat daemon.pid)
printf '%s\n' "$out"
case "$out" in
  *'{"type":"KMS_AUTH_JWT","token":"ey'*) echo "walk-through attested the host" ;;
  *) echo "no token from the agent"; cat walkthrough.err; exit 1 ;;
esac
