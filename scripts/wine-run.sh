#!/usr/bin/env bash
# Runs a Windows program under Wine in the private prefix that
# VXTYPES32_WINEPREFIX names (a build tree's wine-run wrapper sets it): a
# 32-bit prefix (VXTYPES32_WINEARCH=win32, the default) or a 64-bit one
# (win64), where 64-bit programs and Wine's own system32 programs run on the
# 64-bit loader and 32-bit programs (or syswow64 ones) on the 32-bit one.
# Output goes through a file: Wine's helper processes inherit the pipes and
# would keep a caller (CTest) waiting long after the program has ended.
set -u
export WINEPREFIX=${VXTYPES32_WINEPREFIX:?names no Wine prefix}
arch=${VXTYPES32_WINEARCH:-win32}
# No Mono or Gecko installers: the prefix must come up offline and quietly.
export WINEARCH=$arch WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="

loader=wine
if [ "$arch" = win64 ]; then
    loader=/usr/lib/wine/wine64
    program=${1:-}
    # A PE file's machine field: 014c is i386.
    if [ -f "$program" ] && [ "$(od -An -tx2 -j "$(od -An -tu4 -j 60 -N4 "$program" | tr -d ' ')" -N6 "$program" 2>/dev/null | awk '{print $3}')" = 014c ]; then
        loader=wine
    fi
    case "$program" in *[Ss]ys[Ww][Oo][Ww]64*) loader=wine ;; esac
fi

if [ ! -f "$WINEPREFIX/system.reg" ]; then
    mkdir -p "$(dirname "$WINEPREFIX")"
    (
        flock 9
        if [ ! -f "$WINEPREFIX/system.reg" ]; then
            if [ "$arch" = win64 ]; then /usr/lib/wine/wine64 wineboot -i; else wineboot -i; fi >/dev/null 2>&1 </dev/null
            wineserver -w
        fi
    ) 9>"$WINEPREFIX.lock"
fi

out=$(mktemp)
"$loader" "$@" >"$out" 2>&1 </dev/null
rc=$?
# Under load the loader of a 64-bit prefix has now and then ended at once,
# failing, without a word (twice in some hundreds of test runs): a program
# that failed and wrote nothing did not run, so it gets one more start.
if [ "$arch" = win64 ] && [ $rc -ne 0 ] && [ ! -s "$out" ]; then
    "$loader" "$@" >"$out" 2>&1 </dev/null
    rc=$?
fi
cat "$out"
rm -f "$out"
exit $rc
