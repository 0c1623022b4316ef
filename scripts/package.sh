#!/usr/bin/env bash
# Builds everything and packs the release: each DLL (x86/ and x64/) with
# its type library and the manifests for registration-free use, the Windows
# README and the example scripts. The same sources give the same bytes: fixed file order, times
# and owners, and no time stamp in the compressed stream.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
export VXTYPES32_PLATFORMS="x86 x64"
platforms=$("$root/scripts/platforms.sh")
VXTYPES32_TARGETS="vxTypes32 vx_manifests" "$root/scripts/build.sh"
build=$("$root/scripts/platforms.sh" --tree x86)

name=vxTypes32-$(cat "$root/VERSION")
stage=$build/package/$name
rm -rf "$stage"
mkdir -p "$stage/examples"
while read -r platform tree; do
    mkdir -p "$stage/$platform"
    cp "$tree/bin/vxTypes32.dll" "$tree/generated/vxTypes32.tlb" \
       "$tree/bin/vxTypes32.manifest" "$tree/bin/vxTypes32.client.manifest" "$stage/$platform/"
done <<<"$platforms"
cp "$root/docs/WINDOWS.md" "$stage/README.md"
cp "$root"/examples/* "$stage/examples/"

archive=$build/package/$name.tar.gz
tar --sort=name --mtime='2000-01-01 00:00:00 UTC' --owner=0 --group=0 --numeric-owner \
    --mode='u=rwX,go=rX' -C "$build/package" -cf - "$name" | gzip -n -9 >"$archive"
echo "$archive"
