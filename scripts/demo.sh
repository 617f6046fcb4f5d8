#!/usr/bin/env bash
# Builds the project and runs the demo on the simulated host.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)"
exec build/default/tools/hyksim/hyksim demo "$@"
