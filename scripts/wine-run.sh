#!/usr/bin/env bash
# Runs a Windows program under Wine in the project's private prefix.
# Output goes through a file: Wine's helper processes inherit the pipes and
# would keep a caller (CTest) waiting long after the program has ended.
set -u
here=$(cd "$(dirname "$0")" && pwd)
export WINEPREFIX=${VXTYPES32_WINEPREFIX:-$here/../build/wineprefix}
# No Mono or Gecko installers: the prefix must come up offline and quietly.
export WINEARCH=win32 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="

if [ ! -f "$WINEPREFIX/system.reg" ]; then
    mkdir -p "$(dirname "$WINEPREFIX")"
    (
        flock 9
        if [ ! -f "$WINEPREFIX/system.reg" ]; then
            wineboot -i >/dev/null 2>&1 </dev/null
            wineserver -w
        fi
    ) 9>"$WINEPREFIX.lock"
fi

out=$(mktemp)
wine "$@" >"$out" 2>&1 </dev/null
rc=$?
cat "$out"
rm -f "$out"
exit $rc
