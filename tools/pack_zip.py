#!/usr/bin/env python3
"""Packs a folder into a zip file, so that the same files give the same
bytes: entries in name order, each with the release's fixed time and plain
permissions, compressed alike. The folder's name is the top folder of the
archive.

Usage: pack_zip.py FOLDER OUTPUT.zip
"""
import os
import sys
import zipfile

# 2000-01-01 00:00:00, the time of every file of the release.
FIXED_TIME = (2000, 1, 1, 0, 0, 0)


def main(folder, output):
    top = os.path.basename(os.path.normpath(folder))
    names = []
    for root, directories, files in os.walk(folder):
        directories.sort()
        names += [os.path.relpath(os.path.join(root, f), folder) for f in files]
    with zipfile.ZipFile(output, 'w') as archive:
        for name in sorted(names, key=lambda n: n.replace(os.sep, '/')):
            entry = zipfile.ZipInfo('%s/%s' % (top, name.replace(os.sep, '/')), FIXED_TIME)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = 3  # Unix, so that the permissions below hold
            entry.external_attr = 0o644 << 16
            with open(os.path.join(folder, name), 'rb') as f:
                archive.writestr(entry, f.read(), compresslevel=9)
    return 0


if __name__ == '__main__':
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2]))
