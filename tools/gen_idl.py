#!/usr/bin/env python3
"""Writes the developer kit's IDL from the type descriptions of vxTypes32.

Usage: gen_idl.py [--imports DIR STANDIN.tlb SYSTEM_LIBRARIES] OUTPUT.idl
                  LIBRARY.types [SUBSYSTEM.types ...]

The IDL describes the whole library: its imports, interfaces with their
DISPIDs and flags, the event interface, coclasses, the alias of an earlier
IID, records with their field types and enumerations, in the library's index
order. It is the same for both platforms: what is pointer-sized is written
LONG_PTR, which each platform's compile turns into its own form. widl (and
MIDL) compile it into a type library and a C/C++ header; the build compares
widl's library with the DLL's, and docs/DEPLOYING.md lists what IDL cannot say.
"""

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import gen_types  # noqa: E402  (the parser and the model)

IDL_BASE_TYPES = {
    'Byte': 'unsigned char', 'Integer': 'short', 'Long': 'long', 'LongPtr': 'LONG_PTR', 'Single': 'float',
    'Double': 'double', 'Currency': 'CURRENCY', 'Date': 'DATE', 'String': 'BSTR', 'Boolean': 'VARIANT_BOOL',
    'Variant': 'VARIANT', 'Object': 'IDispatch*', 'Unknown': 'IUnknown*',
}

# Type flags and the attributes that state them. Dispatchable follows from
# dual and from dispinterface, cancreate from a coclass that is not
# noncreatable; predeclid has no attribute.
TYPE_ATTRIBUTES = [(0x01, 'appobject'), (0x04, 'licensed'), (0x10, 'hidden'), (0x20, 'control'),
                   (0x40, 'dual'), (0x80, 'nonextensible'), (0x100, 'oleautomation'), (0x200, 'restricted'),
                   (0x400, 'aggregatable'), (0x800, 'replaceable')]
IMPLIED_FLAGS = {'interface': 0x1000, 'events': 0x1000, 'coclass': 0x02, 'alias': 0, 'record': 0, 'enum': 0}
FLAG_NOTES = {0x08: 'predeclid (0x08): a global instance; IDL has no attribute for it'}

# Longer member declarations put a parameter on each line.
LINE_LENGTH = 100

PROPERTY_ATTRIBUTES = {'get': ', propget', 'let': ', propput', 'set': ', propputref', 'method': ''}

# Records whose names the Win32 headers give their own dialog blocks: in C
# and C++ they take the library's name as a prefix (vxTypes32_OPENFILENAME).
WIN32_NAMES = {'OPENFILENAME', 'CHOOSECOLOR'}


class Writer:
    def __init__(self):
        self.lines = []

    def __call__(self, line=''):
        self.lines.append(line)

    def text(self):
        return '\n'.join(self.lines) + '\n'


def guid(text):
    return text.upper()


def hex_id(number):
    return '0x%08X' % (number & 0xFFFFFFFF)


def idl_type(node):
    kind = node[0]
    if kind == 'base':
        return IDL_BASE_TYPES[node[1]]
    if kind == 'ptr':
        return idl_type(node[1]) + '*'
    if kind == 'safearray':
        return 'SAFEARRAY(%s)' % idl_type(node[1])
    if kind == 'user':
        return node[1].name
    raise gen_types.DescriptionError('no IDL type for %r' % (node,))


def attributes(t, extra=()):
    """The attribute list of a type: its identity, then its flags. widl
    refuses a dispinterface's version, so that is a comment."""
    items = ['uuid(%s)' % guid(t.guid)]
    if t.kind != 'events':
        items.append('version(%d.%d)' % t.version)
    items += list(extra)
    items += [name for bit, name in TYPE_ATTRIBUTES if t.flags & bit and stated(t, bit)]
    return '[%s]' % ', '.join(items)


def stated(t, bit):
    """Whether IDL states the flag as an attribute of this kind of type:
    widl takes no nonextensible on a dispinterface."""
    return not (t.kind == 'events' and bit == 0x80)


def flag_notes(t):
    """What the type's flags say that its attributes do not."""
    attribute_names = dict(TYPE_ATTRIBUTES)
    notes = []
    for bit in range(16):
        flag = 1 << bit
        if not t.flags & flag or IMPLIED_FLAGS[t.kind] & flag:
            continue
        if flag in attribute_names:
            if not stated(t, flag):
                notes.append('%s (0x%X): widl takes no such attribute here' % (attribute_names[flag], flag))
        else:
            notes.append(FLAG_NOTES.get(flag, 'type flag 0x%X' % flag))
    return notes


def default_text(value):
    if isinstance(value, bool):
        return '-1' if value else '0'
    if isinstance(value, str):
        return '"%s"' % value.replace('\\', '\\\\').replace('"', '\\"')
    return '%d' % value


def default_of(p):
    """A default as IDL writes it: an enumeration's by its constant's name,
    which C++ takes for a parameter of the enumeration's type."""
    t = p.node[1] if p.node[0] == 'user' else None
    for name, value in getattr(t, 'constants', []):
        if value == p.default and not isinstance(p.default, bool):
            return name
    return default_text(p.default)


def param_text(p):
    flags = ['in', 'out'] if p.by_ref else ['in']
    if p.optional:
        flags.append('optional')
        if p.default is not None:
            flags.append('defaultvalue(%s)' % default_of(p))
    return '[%s] %s%s %s' % (', '.join(flags), idl_type(p.node), '*' if p.by_ref else '', p.name)


def member_text(member, returns):
    params = [param_text(p) for p in member.params]
    if member.result_node is not None:
        params.append('[out, retval] %s* retVal' % idl_type(member.result_node))
    head = '[id(%s)%s%s]' % (hex_id(member.dispid), PROPERTY_ATTRIBUTES[member.kind],
                             ', helpstring("%s")' % member.help if member.help else '')
    line = '%s %s %s(%s);' % (head, returns, member.name, ', '.join(params))
    if len(line) <= LINE_LENGTH:
        return [line]
    return ['%s %s %s(' % (head, returns, member.name)] + \
           ['    %s%s' % (p, ',' if i + 1 < len(params) else ');') for i, p in enumerate(params)]


def emit_interface(w, t):
    w('    %s' % attributes(t))
    w('    interface %s : IDispatch {' % t.name)
    for m in t.members:
        for line in member_text(m, 'HRESULT'):
            w('        ' + line)
    w('    };')


def emit_events(w, t):
    w('    // version %d.%d: widl takes no version of a dispinterface' % t.version)
    for note in flag_notes(t):
        w('    // %s' % note)
    w('    %s' % attributes(t))
    w('    dispinterface %s {' % t.name)
    w('        properties:')
    w('        methods:')
    for m in t.members:
        for line in member_text(m, 'void'):
            w('            ' + line)
    w('    };')


def emit_coclass(w, lib, t):
    for note in flag_notes(t):
        w('    // %s' % note)
    w('    %s' % attributes(t))
    w('    coclass %s {' % t.name)
    w('        [default] interface %s;' % t.default)
    if t.source:
        w('        [default, source] dispinterface %s;' % t.source)
    w('    };')


def field_text(f):
    """A field; an array's C form lists the last bound first, since the first
    index of an automation array runs fastest."""
    node = f.node
    if node[0] == 'carray':
        extents = ''.join('[%d]' % (upper - lower + 1) for lower, upper in reversed(node[2]))
        bounds = ', '.join('%d To %d' % b for b in node[2])
        return '%s %s%s;  // (%s)' % (idl_type(node[1]), f.name, extents, bounds)
    return '%s %s;' % (idl_type(node), f.name)


def emit_record(w, lib, t):
    """A record, with 4-byte packing in the header as in the library."""
    renamed = t.name in WIN32_NAMES
    w('    cpp_quote("#include <pshpack4.h>")')
    if renamed:
        w('    cpp_quote("#pragma push_macro(\\"%s\\")")' % t.name)
        w('    cpp_quote("#undef %s")' % t.name)
        w('    cpp_quote("#define %s %s_%s")' % (t.name, lib.name, t.name))
    w('    typedef %s' % attributes(t))
    w('    struct %s {' % t.name)
    for f in t.fields:
        w('        %s' % field_text(f))
    w('    } %s;' % t.name)
    if renamed:
        w('    cpp_quote("#undef %s")' % t.name)
        w('    cpp_quote("#pragma pop_macro(\\"%s\\")")' % t.name)
    w('    cpp_quote("#include <poppack.h>")')


def emit_enum(w, t, indent='    '):
    w('%stypedef %s' % (indent, attributes(t)))
    w('%senum %s {' % (indent, t.name))
    for i, (name, value) in enumerate(t.constants):
        w('%s    %s = %d%s' % (indent, name, value, ',' if i + 1 < len(t.constants) else ''))
    w('%s} %s;' % (indent, t.name))


def emit_type(w, lib, t):
    if t.kind == 'interface':
        emit_interface(w, t)
    elif t.kind == 'events':
        emit_events(w, t)
    elif t.kind == 'coclass':
        emit_coclass(w, lib, t)
    elif t.kind == 'alias':
        owner = [c.name for c in gen_types.classes(lib) if c.earlier == t.name]
        if owner:
            w('    // An earlier IID of %s, which %s still answers for.' % (t.target, owner[0]))
        w('    typedef %s %s %s;' % (attributes(t, ['public']), t.target, t.name))
    elif t.kind == 'record':
        emit_record(w, lib, t)
    elif t.kind == 'enum':
        emit_enum(w, t)
    w('')


def emit_imported_enums(w, lib):
    """widl resolves the interfaces of an imported library, not its other
    types: the enumerations the library uses are declared for it, with the
    identity of the imported ones, and resolved to the import by name."""
    enums = [it for imp in lib.imports for it in imp.types.values() if it.kind == 'enum']
    if not enums:
        return
    w('#ifdef __WIDL__')
    for it in enums:
        w('typedef [uuid(%s)] enum %s {' % (guid(it.guid), it.name))
        for i, (name, value) in enumerate(it.constants):
            w('    %s = %d%s' % (name, value, ',' if i + 1 < len(it.constants) else ''))
        w('} %s;' % it.name)
    w('#endif')
    w('')


def import_file(imp):
    return imp.file.replace('\\', '\\\\')


def emit_idl(lib):
    w = Writer()
    w('// %s.idl: the %s type library, generated by tools/gen_idl.py from the' % (lib.name, lib.name))
    w('// .types descriptions; do not edit. One file for both platforms: LONG_PTR')
    w('// is a Long in 32-bit Windows and a LongLong in 64-bit Windows. Records')
    w('// have 4-byte packing: compile with widl --win32-align 4 --win64-align 4,')
    w('// or midl /Zp4.')
    w('')
    w('import "oaidl.idl";')
    w('import "ocidl.idl";')
    w('')
    emit_imported_enums(w, lib)
    w('[uuid(%s), version(%d.%d), lcid(%d)]' % (guid(lib.guid), lib.version[0], lib.version[1], lib.lcid))
    w('library %s' % lib.name)
    w('{')
    for imp in lib.imports:
        w('    importlib("%s");  // %s %d.%d' % (import_file(imp), imp.name, imp.version[0], imp.version[1]))
    w('')
    for t in lib.ordered:
        if t.kind in ('interface', 'events'):
            w('    %s %s;' % ('interface' if t.kind == 'interface' else 'dispinterface', t.name))
    w('')
    # A member can use only an enumeration declared before it; the library
    # lists its enumerations last.
    enums = [t for t in lib.ordered if t.kind == 'enum']
    w('    // The enumerations first, which the library lists last: a member can')
    w('    // use only one declared before it.')
    for t in enums + [t for t in lib.ordered if t.kind != 'enum']:
        emit_type(w, lib, t)
    w('};')
    return w.text()


def place_imports(lib, directory, standin, system_libraries):
    """The imported libraries under the names the IDL gives them, where a
    compiler of the IDL opens them: the stand-in for the one the build
    writes itself, the system's copy for the others."""
    for imp in lib.imports:
        source = standin if imp.standin else os.path.join(system_libraries, imp.file)
        with open(source, 'rb') as f:
            gen_types.write_if_changed(os.path.join(directory, imp.file), f.read())


def main(argv):
    arguments = argparse.ArgumentParser(prog='gen_idl.py', description='Writes the kit\'s IDL.')
    arguments.add_argument('--imports', nargs=3, metavar=('DIR', 'STANDIN', 'SYSTEM_LIBRARIES'),
                           help='also place the imported libraries in DIR for a compiler of the IDL')
    arguments.add_argument('output')
    arguments.add_argument('descriptions', nargs='+', metavar='TYPES')
    options = arguments.parse_args(argv[1:])

    def files():
        lib = gen_types.parse(options.descriptions, gen_types.PLATFORMS['win32'])
        if options.imports:
            place_imports(lib, *options.imports)
        return {options.output: emit_idl(lib)}
    return gen_types.generate('gen_idl', '', files)


if __name__ == '__main__':
    sys.exit(main(sys.argv))
