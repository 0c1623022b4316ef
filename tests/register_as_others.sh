#!/usr/bin/env bash
# Registers the DLL as others leave it (the demonstration, an earlier run, the other platform's DLL): machine-wide
# and per user, with a library path for each platform. Another platform's path keeps the shared ProgIDs and
# library keys through this DLL's unregistration.
# Usage: register_as_others.sh WINE_RUN DLL LIBRARY.types [X86_DLL, under WoW64]
set -u
run=$1 x86_dll=${4:-}
read -r _ _ libid version _ < <(grep '^library ' "$3")
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }
# This DLL's own path is written again by its registration below.
for key in {HKLM,HKCU}"\\Software\\Classes\\TypeLib\\$libid\\$version\\0\\"{win32,win64}; do
    "$run" reg add "$key" /ve /d 'C:\elsewhere\vxTypes32.dll' /f >/dev/null || exit 1
done
for scope in "" "/n /i:user"; do
    # shellcheck disable=SC2086
    "$run" regsvr32 /s $scope "$(winpath "$2")" || exit 1
    [ -z "$x86_dll" ] || "$run" 'C:\windows\syswow64\regsvr32.exe' /s $scope "$(winpath "$x86_dll")" || exit 1
done
