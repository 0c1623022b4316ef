#!/bin/sh
# Runs a Windows program under Wine with a virtual display (Xvfb) in a Wine prefix of its own: a Wine desktop
# started without a display cannot show windows later, so these programs must not share the display-free prefix.
# Usage: run_with_display.sh PREFIX win32|win64 PROGRAM [ARGS...]
set -u
here=$(cd "$(dirname "$0")" && pwd)
export VXTYPES32_WINEPREFIX="$1" VXTYPES32_WINEARCH="$2"
shift 2
# The prefix's server goes with the display: the next run must not meet a desktop bound to a display that is gone.
exec xvfb-run -a sh -c '"$0" "$@"; rc=$?; WINEPREFIX="$VXTYPES32_WINEPREFIX" wineserver -k 2>/dev/null; exit $rc' \
    "$here/../scripts/wine-run.sh" "$@"
