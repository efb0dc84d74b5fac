#!/usr/bin/env bash
# The demo: installs what is missing, builds the daemon, and runs a small mesh
# of real daemons in the lab (Linux namespaces on this machine).
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target bandherd >/dev/null
exec /usr/bin/python3 -m lab demo "$@"
