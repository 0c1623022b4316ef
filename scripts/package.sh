#!/usr/bin/env bash
# Builds everything and packs the release, build/package/vxTypes32-VERSION.zip:
#   x86/, x64/   the DLL, stripped, and its debug information apart
#                (vxTypes32.dll.debug, which the DLL names), its type library,
#                its manifests for registration-free use, and its installer
#                package (vxTypes32-VERSION-ARCH.msi)
#   kit/         the developer kit: the library as IDL, the C/C++ header and
#                the GUID definitions, the same for both platforms
#   README.md    the README for Windows users; examples/, a script per class
#   SHA256SUMS   the checksum of every other file
# The same sources give the same bytes: fixed file order, times and
# permissions. A host that runs no 32-bit code cannot build the 32-bit DLL:
# there the archive holds x64/ alone, says so in its name
# (vxTypes32-VERSION-x64.zip), and this script says why.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
platforms=$("$root/scripts/platforms.sh")
left_out=$("$root/scripts/platforms.sh" --left-out)
VXTYPES32_TARGETS="vxTypes32 vx_manifests vx_release vx_kit" "$root/scripts/build.sh"
build=$("$root/scripts/platforms.sh" --tree x86)

version=$(cat "$root/VERSION")
name=vxTypes32-$version
archive=$build/package/$name.zip
if [ -n "$left_out" ]; then
    echo "package: the 32-bit half is left out: ${left_out#x86: }" >&2
    archive=$build/package/$name-x64.zip
fi
stage=$build/package/$name
rm -rf "$stage"
mkdir -p "$stage/examples" "$stage/kit"
while read -r platform tree; do
    mkdir -p "$stage/$platform"
    cp "$tree/release/vxTypes32.dll" "$tree/release/vxTypes32.dll.debug" "$tree/generated/vxTypes32.tlb" \
       "$tree/bin/vxTypes32.manifest" "$tree/bin/vxTypes32.client.manifest" \
       "$tree/release/$name-$platform.msi" "$stage/$platform/"
    # The kit is written from the descriptions alone: each tree's is the same.
    for file in "$tree"/kit/*; do
        if [ -e "$stage/kit/${file##*/}" ] && ! cmp -s "$file" "$stage/kit/${file##*/}"; then
            echo "package: the platforms' kits differ in ${file##*/}" >&2
            exit 1
        fi
        cp "$file" "$stage/kit/"
    done
done <<<"$platforms"
cp "$root/docs/WINDOWS.md" "$stage/README.md"
cp "$root"/examples/* "$stage/examples/"
(cd "$stage" && find . -type f ! -name SHA256SUMS -printf '%P\n' | LC_ALL=C sort | xargs sha256sum >SHA256SUMS)

rm -f "$archive"
python3 "$root/tools/pack_zip.py" "$stage" "$archive"
echo "$archive"
