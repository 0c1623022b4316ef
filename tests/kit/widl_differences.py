#!/usr/bin/env python3
"""The type library widl compiles from the kit's IDL, read back against the library's description
(typelib_writer verify): each difference must be one docs/DEPLOYING.md explains; any other is printed as FAILED.
Usage: widl_differences.py WINE_RUN TYPELIB_WRITER KIT.tlb STANDIN.tlb"""
import math
import re
import subprocess
import sys


def elements(array):
    bounds = re.findall(r'\[(-?\d+) To (-?\d+)\]', array)
    return array.split('[')[0], math.prod(int(upper) - int(lower) + 1 for lower, upper in bounds)


def explained(fact, wanted, found):
    flags = fact == 'type flags' and (int(wanted, 16) & ~int(found, 16), int(found, 16) & ~int(wanted, 16))
    return (fact in ('index', 'size', 'alignment', 'offset') or  # enumerations first; natural alignment
            fact == 'optional params' and wanted == '0' or  # widl counts the defaulted ones
            flags and flags[1] == 0 and flags[0] & ~0x88 == 0 or  # predeclid; a dispinterface's nonextensible
            fact == 'version' and found == '0.0' or  # a dispinterface's
            fact == 'names' and found == wanted + ',retVal' or
            # C arrays, INT constants, imported types by other names
            fact == 'type' and ('[' in wanted and elements(wanted) == elements(found) or (wanted, found) == (
                'VT3', 'VT22') or found in ('(unresolved reference)', '{%s}' % '-'.join('0' * n for n in (8, 4, 4, 4, 12)) + wanted.split('}')[-1])))


def main(run, writer, library, standin):
    out = subprocess.run([run, writer, 'verify', library, standin], capture_output=True, text=True).stdout
    unexplained = []
    for line in out.splitlines():
        m = re.match(r'typelib: (.*?): ([a-z ]+): expected (.*), found (.*)$', line)
        if not (m and explained(*m.group(2, 3, 4)) or
                re.match(r'typelib: type \d+ \w+\.(\w+): doc string: expected \1, found $', line) or
                re.search(r'names locale 0x00000000, expected 0x00000409|differs from its description', line)):
            unexplained.append(line)
            print('FAILED: ' + line)
    if out and not unexplained:
        print('PASS: widl_differences, %d lines, each explained' % len(out.splitlines()))
    return len(unexplained)


if __name__ == '__main__':
    sys.exit(main(*sys.argv[1:5]))
