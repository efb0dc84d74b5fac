#!/usr/bin/env bash
# Installs every Debian package that building, testing and running the lab need.
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config git
  libuv1-dev libcjson-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 python3-pytest
  clang libclang-rt-14-dev llvm-14
  iproute2 iputils-ping util-linux procps
  systemd shellcheck busybox  # systemd-analyze, and the router shell, check the packaging
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
