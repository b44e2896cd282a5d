#!/usr/bin/env bash
# http_bench.sh [BUILD_DIR]: requests per second and p99 latency of an
# anonymous introspection call to witnessd over keep-alive with 64
# connections (wrk), and in the same run of nginx answering the same bytes
# from its configuration: the reference. Prints both and their ratio.
# Needs the Debian packages wrk and nginx-light (installed when missing).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$top/build}
duration=${BENCH_SECONDS:-10}
for p in wrk nginx-light; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="${missing:-} $p"
done
if [ -n "${missing:-}" ]; then
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq $missing >/dev/null
fi

work=$(mktemp -d)
trap 'kill $daemon_pid $nginx_pid 2>/dev/null || true; rm -rf "$work"' EXIT
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

# witnessd in a throwaway sysroot.
"$top/scripts/sysroot.sh" "$build" "$work/sysroot"
echo '<config><log><level>warning</level></log></config>' > "$work/sysroot/etc/quarro/cpservices/witnessd/config.xml"
daemon_port=$(free_port)
WITNESSD_SYSROOT=$work/sysroot WITNESSD_PORT=$daemon_port "$build/daemon/witnessd" 2>"$work/daemon.log" &
daemon_pid=$!
body='{"jsonrpc":"2.0","id":"1","method":"invoke","params":{"serviceId":"com.quarro.lumen.std.introspection.provider","operationId":"get","ctx":{"securityCtx":{},"appCtx":{}},"input":{}}}'
type=application/vnd.quarro.lumen.cleanjson
for _ in $(seq 100); do
  reply=$(curl -s -X POST -H "Content-Type: $type" --data "$body" "http://127.0.0.1:$daemon_port/api" || true)
  [ -n "$reply" ] && break
  sleep 0.1
done
[ -n "$reply" ] || { echo "witnessd did not answer"; cat "$work/daemon.log"; exit 1; }

# nginx answering the same bytes to the same request.
nginx_port=$(free_port)
mkdir -p "$work/nginx"
cat > "$work/nginx/nginx.conf" <<CONF
worker_processes 2;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
daemon off;
events { worker_connections 1024; }
http {
  access_log off;
  client_body_temp_path $work/nginx;
  keepalive_requests 1000000;
  server {
    listen 127.0.0.1:$nginx_port;
    location /api { default_type application/json; return 200 '$reply'; }
  }
}
CONF
nginx -c "$work/nginx/nginx.conf" -p "$work/nginx" &
nginx_pid=$!
sleep 0.5

cat > "$work/post.lua" <<LUA
wrk.method = "POST"
wrk.body = '$body'
wrk.headers["Content-Type"] = "$type"
LUA
run() {  # run URL -> "rps p99_ms"
  wrk -t2 -c64 -d"${duration}s" --latency -s "$work/post.lua" "$1" > "$work/wrk.out"
  rps=$(awk '/^Requests\/sec:/ {print $2}' "$work/wrk.out")
  p99=$(awk '$1 == "99%" {v=$2; if (v ~ /us$/) {sub(/us/,"",v); v/=1000} else if (v ~ /ms$/) {sub(/ms/,"",v)} else if (v ~ /s$/) {sub(/s/,"",v); v*=1000}; print v}' "$work/wrk.out")
  errors=$(awk '/Non-2xx|Socket errors/' "$work/wrk.out")
  echo "$rps $p99"
  [ -z "$errors" ] || echo "  $errors" >&2
}
read -r w_rps w_p99 < <(run "http://127.0.0.1:$daemon_port/api")
read -r n_rps n_p99 < <(run "http://127.0.0.1:$nginx_port/api")
printf 'response bytes:        %d\n' "${#reply}"
printf 'witnessd: %10.0f req/s  p99 %7.2f ms\n' "$w_rps" "$w_p99"
printf 'nginx:    %10.0f req/s  p99 %7.2f ms\n' "$n_rps" "$n_p99"
awk -v w="$w_rps" -v n="$n_rps" 'BEGIN { printf "throughput ratio witnessd/nginx: %.2f (goal >= 0.6, p99 < 5 ms)\n", w / n }'
