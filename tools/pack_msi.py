#!/usr/bin/env python3
"""Builds a Windows Installer package with wixl, so that the same sources
give the same bytes, and applies what wixl cannot write.

Usage: pack_msi.py OUTPUT.msi --identity INSTALLER.wxi --file NAME=PATH ...
                   [--query SQL ...] -- WIXL_ARGUMENTS...

wixl runs in a folder of its own, where the files it packs (--file) have a
fixed time, and its package is then written again by msibuild from its
tables, each sorted, and its streams: wixl orders its string pool as its
hash tables come out, and stamps the package with the time and a random
package code. The written package has the package code that INSTALLER.wxi
defines (PackageCode) and a fixed time. Each --query is an SQL statement
that msibuild runs on the written package.
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

# 2000-01-01 00:00:00 UTC, the time of every file of the release.
FIXED_TIME = 946684800
FIXED_TIME_TEXT = '2000/01/01 00:00:00'
# The summary information's revision number (the package code) and times.
SUMMARY_FIXED = {'9': None, '12': FIXED_TIME_TEXT, '13': FIXED_TIME_TEXT}


def run(arguments, **options):
    result = subprocess.run(arguments, capture_output=True, text=True, env=dict(os.environ, TZ='UTC'), **options)
    if result.returncode != 0:
        sys.stderr.write(result.stdout + result.stderr)
        raise SystemExit('pack_msi: %s failed' % arguments[0])
    return result.stdout


def package_code(identity):
    with open(identity, encoding='utf-8') as f:
        m = re.search(r'<\?define PackageCode = "([0-9A-F-]+)"\?>', f.read())
    if not m:
        raise SystemExit('pack_msi: %s defines no PackageCode' % identity)
    return '{%s}' % m.group(1)


def table_text(raw, table, code):
    """A table as msibuild imports it: three header lines, then its rows
    sorted; the summary information's code and times fixed."""
    lines = run(['msiinfo', 'export', raw, table]).rstrip('\0').split('\n')
    header, rows = lines[:3], [row for row in lines[3:] if row]
    if table == '_SummaryInformation':
        fixed = dict(SUMMARY_FIXED, **{'9': code})
        rows = [row.split('\t')[0] + '\t' + fixed[row.split('\t')[0]] if row.split('\t')[0] in fixed else row
                for row in rows]
    return '\r\n'.join(header + sorted(rows)) + '\r\n'


def main(argv):
    split = argv.index('--') if '--' in argv else len(argv)
    arguments = argparse.ArgumentParser(prog='pack_msi.py')
    arguments.add_argument('output')
    arguments.add_argument('--identity', required=True)
    arguments.add_argument('--file', action='append', default=[], metavar='NAME=PATH')
    arguments.add_argument('--query', action='append', default=[], metavar='SQL')
    options = arguments.parse_args(argv[1:split])
    wixl = argv[split + 1:]
    output = os.path.abspath(options.output)
    with tempfile.TemporaryDirectory() as work:
        for named in options.file:
            name, path = named.split('=', 1)
            shutil.copyfile(path, os.path.join(work, name))
            os.utime(os.path.join(work, name), (FIXED_TIME, FIXED_TIME))
        raw = os.path.join(work, 'wixl.msi')
        run(['wixl'] + wixl + ['-o', raw], cwd=work)
        build = ['msibuild', output]
        for table in sorted(run(['msiinfo', 'tables', raw]).split()):
            with open(os.path.join(work, table + '.idt'), 'w', encoding='utf-8', newline='') as f:
                f.write(table_text(raw, table, package_code(options.identity)))
            build += ['-i', table + '.idt']  # msibuild takes tables by name in its folder
        for index, stream in enumerate(sorted(run(['msiinfo', 'streams', raw]).split())):
            if stream.endswith('SummaryInformation'):
                continue
            with open(os.path.join(work, 'stream%d' % index), 'wb') as f:
                f.write(subprocess.run(['msiinfo', 'extract', raw, stream], capture_output=True, check=True).stdout)
            build += ['-a', stream, 'stream%d' % index]
        for query in options.query:
            build += ['-q', query]
        if os.path.exists(output):
            os.remove(output)
        run(build, cwd=work)
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
