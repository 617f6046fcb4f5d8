#!/usr/bin/env bash
# Builds everything and runs every test.  Usage: scripts/test.sh [PRESET]
# (PRESET: default | asan-ubsan | tsan; default: default).
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset"
