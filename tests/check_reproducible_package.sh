#!/usr/bin/env bash
# The release package is the same, byte for byte, when built again from the same sources in another build tree:
# DLLs, debug information, installer packages, kit and archive. Each tree builds what this host builds.
# Usage: check_reproducible_package.sh SOURCE_ROOT BUILD_ROOT
set -u
root=$1 build=$2 other=$2/reproducibility
first=$(VXTYPES32_BUILD=$build "$root/scripts/package.sh" 2>/dev/null) || { echo "packaging failed"; exit 1; }
second=$(VXTYPES32_BUILD=$other "$root/scripts/package.sh" 2>/dev/null) || { echo "packaging in $other failed"; exit 1; }
for prefix in "$other/wineprefix" "$other/x64/wineprefix"; do WINEPREFIX=$prefix wineserver -k 2>/dev/null; done
if cmp "$first" "$second"; then
    echo "both builds packed $(sha256sum <"$first" | cut -c1-16)…"
    exit 0
fi
# Say which file differs.
for archive in "$first" "$second"; do rm -rf "$archive.d" && mkdir -p "$archive.d" && python3 -m zipfile -e "$archive" "$archive.d"; done
diff -r "$first.d" "$second.d"
exit 1
