#!/usr/bin/env bash
# The release package is the same, byte for byte, when built again from the
# same sources in another build tree.
set -u
root=$1
build=$2
other=$build/reproducibility
first=$(VXTYPES32_BUILD=$build "$root/scripts/package.sh") || { echo "packaging failed"; exit 1; }
second=$(VXTYPES32_BUILD=$other "$root/scripts/package.sh") || { echo "packaging in $other failed"; exit 1; }
WINEPREFIX=$other/wineprefix wineserver -k 2>/dev/null
if cmp "$first" "$second"; then
    echo "both builds packed $(sha256sum <"$first" | cut -c1-16)…"
    exit 0
fi
# Say which file differs.
for tree in "$first" "$second"; do mkdir -p "$tree.d" && tar -xzf "$tree" -C "$tree.d"; done
diff -r "$first.d" "$second.d"
exit 1
