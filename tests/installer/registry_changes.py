#!/usr/bin/env python3
"""What a `reg export` adds to an earlier one ("+ KEY", "+ KEY | NAME = VALUE") or takes from it ("-"),
sorted; each PATH=NAME writes the file or folder PATH, where a value names it, as NAME.
Usage: registry_changes.py BEFORE.reg AFTER.reg [PATH=NAME ...]"""
import re
import signal
import sys


def entries(path, renames):
    with open(path, encoding='utf-16') as f:
        text = f.read().replace('\\\n  ', '')  # continued hex lines
    found, key = set(), None
    for line in text.splitlines():
        if line.startswith('[') and line.endswith(']'):
            key = line[1:-1]
            found.add(key)
        elif key and '=' in line:
            name, value = line.split('=', 1)
            for old, new in renames:  # .reg doubles backslashes; a folder may end with one
                value = re.sub(re.escape(old.replace('\\', '\\\\')) + r'(\\\\)?(?=")', new, value, flags=re.I)
            found.add('%s | %s = %s' % (key, '' if name == '@' else name.strip('"'), value))
    return found


if __name__ == '__main__':
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # a reader may stop at the line it wants
    renames = [r.split('=', 1) for r in sys.argv[3:]]
    before, after = entries(sys.argv[1], renames), entries(sys.argv[2], renames)
    for line in sorted(['+ ' + e for e in after - before] + ['- ' + e for e in before - after], key=lambda l: l[2:]):
        print(line)
