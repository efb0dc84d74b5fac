#!/usr/bin/env bash
# Installs every Debian package that building, testing and running the lab need.
# Idempotent: when everything is present it only checks and returns.
#
#   scripts/setup.sh              the host's build, tests and lab
#   scripts/setup.sh cross ARCH   only what a cross build for ARCH (mipsel or
#                                 armhf) needs: the cross compiler, the target's
#                                 libuv, cJSON and GoogleTest, and qemu-user
set -euo pipefail

arch=""
case "${1:-}" in
  "") ;;
  cross)
    arch=${2:-}
    case "$arch" in
      mipsel) triple=mipsel-linux-gnu ;;
      armhf) triple=arm-linux-gnueabihf ;;
      *) echo "usage: $0 [cross mipsel|armhf]" >&2; exit 2 ;;
    esac
    ;;
  *) echo "usage: $0 [cross mipsel|armhf]" >&2; exit 2 ;;
esac

if [ -z "$arch" ]; then
  packages=(
    g++ cmake ninja-build pkg-config git
    libuv1-dev libcjson-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    python3 python3-pytest python3-pytest-xdist
    clang libclang-rt-14-dev llvm-14   # the fuzz targets
    iproute2 iputils-ping util-linux procps
    systemd shellcheck busybox  # systemd-analyze, and the router shell, check the packaging
    valgrind strace             # valgrind runs, the lab's load benchmark
  )
else
  packages=(
    cmake ninja-build pkg-config git
    "g++-$triple" qemu-user
    "libuv1-dev:$arch" "libcjson-dev:$arch" "libgtest-dev:$arch"
  )
fi

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
if [ -n "$arch" ] && ! dpkg --print-foreign-architectures | grep -qx "$arch" \
   && [ "$(dpkg --print-architecture)" != "$arch" ]; then
  $sudo dpkg --add-architecture "$arch"
fi
# A foreign architecture's index may fail to download from some mirror; what
# the install needs is usually there all the same, so the install decides.
if [ -n "$arch" ]; then
  $sudo apt-get update -qq || echo "setup: some package indexes could not be updated"
else
  $sudo apt-get update -qq
fi
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
