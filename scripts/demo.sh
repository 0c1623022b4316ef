#!/usr/bin/env bash
# Builds everything, registers the DLL in the build tree's own Wine prefix
# and shows every class at work through a real script client.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh"
wine_run=$root/build/wine-run
"$wine_run" regsvr32 /s "$root/build/bin/vxTypes32.dll" || { echo "registration failed" >&2; exit 1; }
"$root/build/cscript" "$root/demo/demo.vbs"
WINEPREFIX=$root/build/wineprefix wineserver -k 2>/dev/null || true
