#!/usr/bin/env bash
# What the DLL's own registration writes into a fresh prefix, machine-wide
# and per user, with its path and folder named <DLL> and <DIR>: the
# reference for the installer tests (reference.machine, reference.user).
# Usage: msi_reference.sh TREE DLL
set -u
tree=$1 dll=$2 work=$1/installer-tests
. "$(dirname "$0")/msi_support.sh"
mkdir -p "$work"
fresh_prefix regsvr32
snapshot ref0
run regsvr32 /s "$(winpath "$dll")" || fail "regsvr32"
snapshot ref-machine
run regsvr32 /s /u "$(winpath "$dll")"
run regsvr32 /s /n /i:user "$(winpath "$dll")" || fail "regsvr32 /n /i:user"
snapshot ref-user
run regsvr32 /s /u /n /i:user "$(winpath "$dll")"
stop_prefix
names=(--as "$(winpath "$dll")=<DLL>" --as "$(winpath "$(dirname "$dll")")=<DIR>")
changes ref0 ref-machine machine "${names[@]}" >"$work/reference.machine"
changes ref0 ref-user user "${names[@]}" >"$work/reference.user"
for part in machine user; do
    grep -q '<DLL>' "$work/reference.$part" || fail "the $part registration names no DLL"
done
[ $failures -eq 0 ] && echo "PASS: msi_reference"
exit $failures
