#!/usr/bin/env bash
# The DLL imports only DLLs that every Windows installation has, and exports exactly its entry points, by plain
# name: the four of every in-process server, and DllInstall for per-user registration.
set -u
dump=$("${2:-i686-w64-mingw32-objdump}" -p "$1") || { echo "cannot read $1"; exit 1; }
foreign=$(sed -n 's/^\s*DLL Name: //p' <<<"$dump" | grep -viE '^(kernel32|user32|gdi32|advapi32|ole32|oleaut32|msvcrt)\.dll$')
exports=$(sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' <<<"$dump" | sed -n 's/^\s*\[\s*[0-9]*\] //p' | sort | tr '\n' ' ')
expected='DllCanUnloadNow DllGetClassObject DllInstall DllRegisterServer DllUnregisterServer '
[ -z "$foreign" ] || echo "imports DLLs that are not part of the system:" $foreign
[ "$exports" = "$expected" ] || echo "exports are [$exports], expected [$expected]"
[ -z "$foreign" ] && [ "$exports" = "$expected" ] && echo "imports and exports as required"
