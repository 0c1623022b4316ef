#!/usr/bin/env bash
# Installs what is missing, configures and builds into build/ (or
# $VXTYPES32_BUILD), everything or just $VXTYPES32_TARGETS. Quiet unless
# something fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${VXTYPES32_BUILD:-$root/build}
log=$build/build.log

"$root/scripts/setup.sh"
mkdir -p "$build"
{
    if [ ! -f "$build/CMakeCache.txt" ]; then
        cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mingw32.cmake" \
              -DCMAKE_BUILD_TYPE=Release
    fi
    # shellcheck disable=SC2086
    cmake --build "$build" -j "$(nproc)" ${VXTYPES32_TARGETS:+--target $VXTYPES32_TARGETS}
} >"$log" 2>&1 || { cat "$log" >&2; echo "build failed; the log is $log" >&2; exit 1; }
