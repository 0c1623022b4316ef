#!/usr/bin/env bash
# The DLL imports only DLLs that every Windows installation has, and exports
# exactly its entry points, by plain name: the four of every in-process
# server, and DllInstall for per-user registration.
set -u
dll=$1
objdump=${2:-i686-w64-mingw32-objdump}
dump=$("$objdump" -p "$dll") || { echo "cannot read $dll"; exit 1; }

allowed='^(kernel32|user32|gdi32|advapi32|ole32|oleaut32|msvcrt)\.dll$'
status=0
while read -r imported; do
    if ! echo "$imported" | tr 'A-Z' 'a-z' | grep -Eq "$allowed"; then
        echo "imports a DLL that is not part of the system: $imported"
        status=1
    fi
done < <(echo "$dump" | sed -n 's/^\s*DLL Name: //p')

exports=$(echo "$dump" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | sed -n 's/^\s*\[\s*[0-9]*\] //p' | sort | tr '\n' ' ')
expected='DllCanUnloadNow DllGetClassObject DllInstall DllRegisterServer DllUnregisterServer '
if [ "$exports" != "$expected" ]; then
    echo "exports are [$exports], expected [$expected]"
    status=1
fi
[ $status -eq 0 ] && echo "imports and exports as required"
exit $status
