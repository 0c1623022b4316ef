#!/usr/bin/env bash
# Builds everything and runs every test through CTest.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
"$root/scripts/build.sh"
status=0
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" || status=$?
WINEPREFIX=$build/wineprefix wineserver -k 2>/dev/null || true
exit $status
