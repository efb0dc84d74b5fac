#!/usr/bin/env bash
# Cross build for a router: installs what is missing (scripts/setup.sh cross
# ARCH), builds the size-optimised daemon of the router platform (netlink
# channel; the lab's Wi-Fi library stands in for the vendor's) and the unit
# tests for ARCH, runs the unit tests under qemu-user and prints the stripped
# daemon's size.
#   scripts/cross.sh mipsel|armhf [BUILD_DIR]     (default build-ARCH)
# Extra CMake options: BANDHERD_CROSS_CMAKE="-D...", e.g. -DBANDHERD_MIPS16=ON
# (mipsel: the daemon in the MIPS16e encoding, a fifth smaller).
set -euo pipefail
cd "$(dirname "$0")/.."

arch=${1:-}
case "$arch" in
  mipsel) triple=mipsel-linux-gnu ;;
  armhf) triple=arm-linux-gnueabihf ;;
  *) echo "usage: $0 mipsel|armhf [BUILD_DIR]" >&2; exit 2 ;;
esac
dir=${2:-build-$arch}
# shellcheck disable=SC2206  # options, split as a shell would
options=(${BANDHERD_CROSS_CMAKE:-})

./scripts/setup.sh cross "$arch"

jobs=$(nproc)
cmake -S . -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="cmake/toolchain-$arch.cmake" \
  -DCMAKE_BUILD_TYPE=MinSizeRel -DBANDHERD_WERROR=ON -DBANDHERD_SMALL=ON \
  -DBANDHERD_PLATFORM=router -DBANDHERD_UWB_LIBRARY=uwb_lab "${options[@]}" >/dev/null
cmake --build "$dir" -j "$jobs"
# Each test binary lists its tests under qemu at build time; none listed means
# the binary did not run there.
for list in "$dir"/tests/unit/*_tests.cmake; do
  grep -q '^add_test' "$list" || { echo "cross: no test listed in $list" >&2; exit 1; }
done

# Not run under qemu:
# - OpenwrtPackage checks the package's shell scripts on the host, as the
#   normal build's tests do; nothing in it is cross-built.
# - router/...: the router's netlink channel, tested on NETLINK_USERSOCK;
#   qemu-user opens netlink sockets of NETLINK_ROUTE, KOBJECT_UEVENT and
#   AUDIT only, and refuses that one. The same tests of the lab's channel run.
exclude='^(OpenwrtPackage|router/.*)$'
status=0
ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 120 -E "$exclude" || status=$?
# The 1 KiB core files qemu leaves for each death test's child.
find "$dir" -name 'qemu_*.core' -delete
[ "$status" -eq 0 ] || exit "$status"

daemon=$dir/src/bandherd
needed=$("$triple-readelf" -d "$daemon" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
case " $needed" in
  *" libstdc++"*) echo "cross: the daemon needs libstdc++ (${needed% })" >&2; exit 1 ;;
esac
# MIPS16 code passes and gets doubles in integer registers; a library
# function that takes or returns one in floating-point registers (libm's,
# strtod, libgcc's for standard code) it reaches only by a call stub, which
# the linker's garbage collection drops. The daemon makes such calls from
# standard-encoding functions (STEER_FLOAT_CALLS in src/steer.h).
if [ "$arch" = mipsel ]; then
  float_calls=$(comm -12 \
    <("$triple-objdump" -d "$daemon" | grep -oE '<[^<>]*@mips16plt>' | sed 's/^<//; s/@mips16plt>$//' | sort -u) \
    <({ "$triple-nm" -D --defined-only "/usr/$triple/lib/libm.so.6" | awk '{print $3}' | sed 's/@.*//'
        printf '%s\n' strtod strtof strtold atof
        "$triple-nm" -D --defined-only "/usr/$triple/lib/libgcc_s.so.1" | awk '{print $3}' | sed 's/@.*//' |
          grep -E '^__(fix[a-z]*|float[a-z]*|[a-z]+[sdt]f[23]|[a-z]+[sd]c3)$'
      } | sort -u))
  if [ -n "$float_calls" ]; then
    echo "cross: MIPS16 code calls through the PLT with doubles in floating-point registers:" $float_calls >&2
    exit 1
  fi
fi
echo "cross: $arch daemon $(stat -c %s "$daemon") bytes stripped, needs ${needed% }"
