#!/usr/bin/env bash
# Builds everything and runs the benchmark programs; they print figures.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
"$root/scripts/build.sh"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
(cd "$build/bin" && "$build/wine-run" bench_dispatch.exe)
"$build/cscript" "$root/bench/late_bound.vbs"
WINEPREFIX=$build/wineprefix wineserver -k 2>/dev/null || true
