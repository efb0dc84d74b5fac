#!/usr/bin/env bash
# A node's daemon under valgrind (memcheck, full leak check) through a lab scenario, then
# stopped with SIGTERM: passes when the scenario ran, the daemon ended with status 0 and
# valgrind found no invalid access and no byte definitely lost.
#   scripts/valgrind.sh [SCENARIO] [--node NODE] [--dir LABDIR]   (default lab/scenarios/demo.json, node A)
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
if [ -z "${BANDHERD_BIN:-}" ]; then
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build --target bandherd >/dev/null
fi
exec /usr/bin/python3 -m lab.leakcheck "$@"
