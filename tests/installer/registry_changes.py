#!/usr/bin/env python3
"""What a registry export adds to, or takes from, an earlier one: a line a
key ("+ KEY") or a value ("+ KEY | NAME = VALUE"), "-" for what went, sorted.
Exports are `reg export` files (UTF-16); the 32-bit view of a key shows as
its Wow6432Node. Each --as PATH=NAME writes PATH, a file or folder named in
values (with or without a trailing backslash), as NAME.

Usage: registry_changes.py BEFORE.reg AFTER.reg [--as PATH=NAME ...]
"""
import argparse
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
            name = '' if name == '@' else name.strip('"')
            for old, new in renames:
                value = re.sub(re.escape(old.replace('\\', '\\\\')) + r'(\\\\)?(?=")', new, value, flags=re.I)
            found.add('%s | %s = %s' % (key, name, value))
    return found


def main(argv):
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # a reader may stop at the first line it wants
    arguments = argparse.ArgumentParser()
    arguments.add_argument('before')
    arguments.add_argument('after')
    arguments.add_argument('--as', dest='renames', action='append', default=[], metavar='PATH=NAME')
    options = arguments.parse_args(argv[1:])
    renames = [r.split('=', 1) for r in options.renames]
    before, after = entries(options.before, renames), entries(options.after, renames)
    for line in sorted(['+ ' + e for e in after - before] + ['- ' + e for e in before - after], key=lambda l: l[2:]):
        print(line)
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
