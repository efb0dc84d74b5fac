#!/usr/bin/env bash
# The project's one test command (CI runs it too): installs what is missing,
# then builds and tests twice, normally and with AddressSanitizer +
# UndefinedBehaviorSanitizer, runs each fuzz target briefly, and runs the
# daemon for real in private namespaces.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh

python=/usr/bin/python3

# As many compile jobs as there are cores (ninja's default is more, and the
# sanitizer build's compilers then crowd a small machine's memory).
jobs=$(nproc)

build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja -DBANDHERD_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

echo "== normal build"
build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== router platform (netlink channel, the lab's Wi-Fi library in the vendor's place)"
cmake -S . -B build-router -G Ninja -DBANDHERD_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DBANDHERD_PLATFORM=router -DBANDHERD_UWB_LIBRARY="$PWD/build/platform/libuwb.a" \
  -DBANDHERD_TESTS=OFF -DBANDHERD_BENCH=OFF >/dev/null
cmake --build build-router -j "$jobs" --target bandherd
build-router/src/bandherd -V | grep -q "router platform"
sh packaging/check_install.sh build-router   # the tree a router package is made of

echo "== cross build for mipsel (size-optimised; unit tests under qemu-user)"
./scripts/cross.sh mipsel build-mipsel

echo "== sanitizer build (ASan + UBSan)"
build build-asan -DCMAKE_BUILD_TYPE=Debug -DBANDHERD_SANITIZE=ON
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"

echo "== fuzz targets, a short run each (clang, ASan + UBSan)"
./scripts/fuzz.sh all 12
./scripts/fuzz.sh all check

# The lab tests mostly wait on the daemons' timers (heartbeats, ageing, time-outs), so they run
# on many more workers than cores; tests that share a lab of their module stay on one worker
# (tests/lab/conftest.py). Past 12 workers the run is as long as its longest test and more
# workers only take longer to start.
lab_tests() {
  local binary=$1 workers=$2
  shift 2
  BANDHERD_BIN=$binary "$python" -m pytest -q -p no:cacheprovider -n "$workers" --dist loadgroup "$@"
}

echo "== the daemon as a user runs it (sanitizer build)"
lab_tests build-asan/src/bandherd 4 tests/lab/test_startup.py

echo "== lab tests (normal build)"
lab_tests build/src/bandherd 12 tests/lab

echo "== valgrind over a lab scenario (normal build)"
BANDHERD_BIN=build/src/bandherd ./scripts/valgrind.sh
