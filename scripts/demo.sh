#!/usr/bin/env bash
# Builds the project and runs the demo: a classic live upgrade of about 200
# ports on the simulated host (scenarios/demo-classic.hyk).  The report,
# trace and chart go to build/demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)"
mkdir -p build/demo
exec build/default/tools/hyksim/hyksim demo --report-dir build/demo --log-file build/demo/host.log "$@"
