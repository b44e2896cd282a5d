#!/usr/bin/env bash
# Installs the Debian packages the build, the daemon and the tests need.
# Idempotent: apt is only called when a package is missing.
set -euo pipefail
packages=(
  build-essential cmake pkg-config python3 clang libclang-rt-14-dev
  libssl-dev openssl libxml2-dev zlib1g-dev libprotobuf-dev protobuf-compiler libsimdjson-dev
  libjwt-dev libjansson-dev libboost-dev libboost-system-dev libsqlite3-dev
  libtss2-dev swtpm swtpm-tools tpm2-tools nlohmann-json3-dev prometheus-cpp-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  curl systemd dpkg-dev file
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
