#!/usr/bin/env python3
"""The type library widl compiles from the kit's IDL, read back against the
library's description (typelib_writer verify): every difference must be
one the README explains; any other is printed as FAILED.

Usage: widl_differences.py WINE_RUN TYPELIB_WRITER KIT.tlb STANDIN.tlb
"""
import re
import subprocess
import sys

GUID_NULL = '{00000000-0000-0000-0000-000000000000}'


def elements(bounds):
    count = 1
    for lower, upper in re.findall(r'\[(-?\d+) To (-?\d+)\]', bounds):
        count *= int(upper) - int(lower) + 1
    return count


def same_array(wanted, found):
    """An automation array as C declares it: first bound 0, bounds listed
    the other way round; the same elements."""
    w, f = re.match(r'(VT\d+)(\[.*)', wanted), re.match(r'(VT\d+)(\[.*)', found)
    return bool(w and f) and w.group(1) == f.group(1) and elements(w.group(2)) == elements(f.group(2))


def explained(fact, wanted, found):
    if fact in ('index', 'optional params', 'size', 'alignment', 'offset'):
        # Enumerations come first in the IDL; widl counts defaulted
        # parameters as optional and lays records out naturally aligned.
        return fact != 'optional params' or wanted == '0'
    if fact == 'type flags':  # predeclid, and nonextensible of a dispinterface
        missing, extra = int(wanted, 16) & ~int(found, 16), int(found, 16) & ~int(wanted, 16)
        return extra == 0 and missing & ~0x88 == 0
    if fact == 'version':  # of the dispinterface
        return found == '0.0'
    if fact == 'names':  # widl names the result
        return found == wanted + ',retVal'
    if fact == 'type':
        return (same_array(wanted, found) or (wanted, found) == ('VT3', 'VT22') or
                found == '(unresolved reference)' or
                found == GUID_NULL + wanted[wanted.index('}') + 1:])
    return False


def main(run, writer, library, standin):
    out = subprocess.run([run, writer, 'verify', library, standin], capture_output=True, text=True).stdout
    unexplained = []
    for line in out.splitlines():
        m = re.match(r'typelib: (.*?): ([a-z ]+): expected (.*), found (.*)$', line)
        field_doc = re.match(r'typelib: type \d+ \w+\.(\w+): doc string: expected \1, found $', line)
        if field_doc or (m and explained(m.group(2), m.group(3), m.group(4))):
            continue
        if re.search(r'names locale 0x00000000, expected 0x00000409|differs from its description', line):
            continue
        unexplained.append(line)
    for line in unexplained:
        print('FAILED: ' + line)
    if not unexplained and out:
        print('PASS: widl_differences, %d lines, each explained' % len(out.splitlines()))
    return len(unexplained)


if __name__ == '__main__':
    sys.exit(main(*sys.argv[1:5]))
