#!/usr/bin/env python3
"""Turns the type descriptions of vxTypes32 into the build's generated files.

Usage: gen_types.py [--platform win32|win64] --version-file VERSION
                    OUTPUT_DIR LIBRARY.types [SUBSYSTEM.types ...]

The platform (win32 unless given) sets the library's SYSKIND and the size of
pointers, strings, objects and LongPtr; record offsets and sizes annotated in
the descriptions are the win32 layout's and are checked there only. The
version file holds the product and file version, MAJOR.MINOR.REVISION, on
one line.

Writes into OUTPUT_DIR:
  vxTypes32_types.h     C++ declarations: GUIDs, interfaces, records, enums,
                        each interface's member table (frame/member_table.h),
                        the members' DISPIDs and the classes' creators
  library_identity.h    the library's name, LIBID and version, the ProgID
                        prefix and the product version, for the frame
  class_table.cpp       the class table's rows, one per coclass in the order
                        the descriptions are read
  class_names.txt       the class names in that order, one a line
  version.rc            the version resource
  typelib_tables.inc    the types as data for tools/typelib_writer.cpp,
                        which writes the .tlb from them and checks it read back
  iid_resources.rc      the _IID_ and _SRCIID_ resources, one .bin per item

The description format is line oriented. '#' starts a comment, blank lines
are ignored, and every block is closed by a line `end`.

  library NAME {LIBID} MAJOR.MINOR lcid N names_lcid N progid_prefix PREFIX
      A class's ProgID is PREFIX.CLASS.

  installer PLATFORM {UPGRADE_CODE}
      The upgrade code of the platform's installer package (win32, win64),
      which all its versions share (tools/gen_installer.py).

  import NAME {LIBID} MAJOR.MINOR lcid N file HINT [standin]
      interface NAME {IID}
      enum NAME {GUID}
          MEMBER = VALUE          (optional; written into a stand-in library)
  end
      A library this one refers to; HINT is the file name written for it
      (stdole2.tlb, msvbvm60.dll\3). `standin` means the build writes a
      library with that identity itself and resolves the import with it
      (see typelib_writer standin); the hint still names the real one.

  order
      NAME NAME ...               index order of the types named; those not
  end                             named follow in the order they are read

  interface NAME {IID} MAJOR.MINOR flags 0xNNNN     dual, derives from IDispatch
      MEMBER LINES
  end
  events NAME {IID} MAJOR.MINOR flags 0xNNNN        dispinterface
      MEMBER LINES
  end
  coclass NAME {CLSID} MAJOR.MINOR flags 0xNN
      default INTERFACE
      source EVENTS                                 the default source
      earlier ALIAS                                 an alias of INTERFACE, an
                                                    earlier IID still answered
      creator FUNCTION                              vx::FUNCTION makes instances
  end
  alias NAME = TARGET {GUID} MAJOR.MINOR flags 0xNN
  record NAME {GUID} MAJOR.MINOR [size N]
      FIELD LINES
  end
  enum NAME {GUID} MAJOR.MINOR
      NAME = VALUE
  end

Member line:
  KIND NAME(PARAMS) [As TYPE] dispid N [help "text"]
  KIND is get, let (property put), set (property put by reference) or method.
  PARAMS: comma separated `[Optional] [ByVal|ByRef] name As TYPE [= default]`;
  ByVal is the default. A let or set takes its value as the last parameter.
  A result (As TYPE) becomes a trailing [out, retval] pointer. An Optional
  parameter without a default must be a Variant. A Boolean default is True
  or False; others are numbers or "text".

Field line:
  name As TYPE | name() As TYPE | name(L To U[, L To U]) As TYPE | name(N) As TYPE
  optionally followed by `@ OFFSET`; a bare N means 0 To N. `()` is a
  SAFEARRAY. The generator lays records out with 4-byte packing and stops
  with an error where an annotated offset or size disagrees.

TYPE: Byte Integer Long LongPtr Single Double Currency Date String Boolean
Variant Object Unknown, a described type (an interface or a coclass stands for a
pointer to the interface), or IMPORT.NAME (a bare imported NAME is accepted
where it is unambiguous).
"""

import argparse
import os
import re
import struct
import sys
import uuid

# Automation base types as C++ declares them, the same on every platform.
CPP_BASE_TYPES = {
    'Byte': 'BYTE', 'Integer': 'SHORT', 'Long': 'LONG', 'LongPtr': 'LONG_PTR', 'Single': 'FLOAT',
    'Double': 'DOUBLE', 'Currency': 'CY', 'Date': 'DATE', 'String': 'BSTR', 'Boolean': 'VARIANT_BOOL',
    'Variant': 'VARIANT', 'Object': 'IDispatch*', 'Unknown': 'IUnknown*',
}


class Platform:
    """What a library is written for: its SYSKIND, and the pointer size that
    sets the size of strings, objects and LongPtr."""

    def __init__(self, name, syskind, pointer):
        self.name, self.syskind, self.pointer_size = name, syskind, pointer
        # VARTYPE, size, alignment. LongPtr holds a handle or an address:
        # Long on win32, LongLong on win64.
        self.base_types = {
            'Byte': ('VT_UI1', 1, 1),
            'Integer': ('VT_I2', 2, 2),
            'Long': ('VT_I4', 4, 4),
            'LongPtr': ('VT_I4' if pointer == 4 else 'VT_I8', pointer, pointer),
            'Single': ('VT_R4', 4, 4),
            'Double': ('VT_R8', 8, 8),
            'Currency': ('VT_CY', 8, 8),
            'Date': ('VT_DATE', 8, 8),
            'String': ('VT_BSTR', pointer, pointer),
            'Boolean': ('VT_BOOL', 2, 2),
            'Variant': ('VT_VARIANT', 8 + 2 * pointer, 8),
            'Object': ('VT_DISPATCH', pointer, pointer),
            'Unknown': ('VT_UNKNOWN', pointer, pointer),
        }

    def vartype(self, base):
        return self.base_types[base][0]

    def size_align(self, base):
        return self.base_types[base][1:]

    def checks_annotated_layout(self):
        """Annotated offsets and sizes are the 32-bit layout's."""
        return self.pointer_size == 4


PLATFORMS = {'win32': Platform('win32', 'SYS_WIN32', 4), 'win64': Platform('win64', 'SYS_WIN64', 8)}


PACKING = 4
IDISPATCH_SLOTS = 7
INVOKE_KINDS = {'get': 'INVOKE_PROPERTYGET', 'let': 'INVOKE_PROPERTYPUT',
                'set': 'INVOKE_PROPERTYPUTREF', 'method': 'INVOKE_FUNC'}
CPP_PREFIX = {'get': 'get_', 'let': 'put_', 'set': 'putref_', 'method': ''}


class DescriptionError(Exception):
    pass


class Where:
    def __init__(self, path, line):
        self.path, self.line = path, line

    def __str__(self):
        return '%s:%d' % (self.path, self.line)


def fail(where, message):
    raise DescriptionError('%s: %s' % (where, message))


# ---------------------------------------------------------------- the model

class Library:
    def __init__(self, platform):
        self.platform = platform
        self.name = None
        self.guid = None
        self.version = None
        self.lcid = 0
        self.names_lcid = 0x0409
        self.prog_id_prefix = None
        self.upgrade_codes = {}  # platform name -> the installer's upgrade code
        self.product_version = None  # ProductVersion
        self.imports = []
        self.order = []
        self.types = {}          # name -> TypeDef
        self.ordered = []        # TypeDefs in index order


class Import:
    def __init__(self, name, guid, version, lcid, file, where):
        self.name, self.guid, self.version, self.lcid = name, guid, version, lcid
        self.file, self.where = file, where
        self.standin = False     # resolved at build time by a library of our own
        self.types = {}          # name -> ImportedType


class ImportedType:
    def __init__(self, library, kind, name, guid):
        self.library, self.kind, self.name, self.guid = library, kind, name, guid
        self.constants = []      # (name, value) for a stand-in enum


class TypeDef:
    def __init__(self, kind, name, guid, version, flags, where):
        self.kind, self.name, self.guid, self.version = kind, name, guid, version
        self.flags, self.where = flags, where
        self.members = []        # Member, for interface and events
        self.fields = []         # Field, for record
        self.constants = []      # (name, value), for enum
        self.default = None      # coclass: default interface name
        self.source = None       # coclass: default source name
        self.creator = None      # coclass: the C++ function that makes an instance
        self.earlier = None      # coclass: the alias that is its interface's earlier IID
        self.target = None       # alias: target name
        self.declared_size = None
        self.size = None
        self.index = None


class ProductVersion:
    """The product and file version, written MAJOR.MINOR.REVISION such as 2.05.0017.
    The version resource and the manifests take four numbers, the third 0."""

    def __init__(self, text, where):
        m = re.match(r'^(\d+)\.(\d+)\.(\d+)$', text)
        if not m:
            fail(where, 'a version is MAJOR.MINOR.REVISION, not %r' % text)
        self.text = text
        self.numbers = (int(m.group(1)), int(m.group(2)), 0, int(m.group(3)))


class Member:
    def __init__(self, kind, name, params, result, dispid, help_text, where):
        self.kind, self.name, self.params, self.result = kind, name, params, result
        self.dispid, self.help, self.where = dispid, help_text, where


class Param:
    def __init__(self, name, type_name, by_ref, optional, default, where):
        self.name, self.type_name, self.by_ref = name, type_name, by_ref
        self.optional, self.default, self.where = optional, default, where


class Field:
    def __init__(self, name, type_name, dims, safearray, offset, where):
        self.name, self.type_name, self.dims = name, type_name, dims
        self.safearray, self.declared_offset, self.where = safearray, offset, where
        self.offset = None


# --------------------------------------------------------------- the parser

GUID_RE = r'\{([0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12})\}'
NAME_RE = r'([A-Za-z_][A-Za-z0-9_]*)'
VERSION_RE = r'(\d+)\.(\d+)'
NUMBER_RE = r'(-?(?:0[xX][0-9A-Fa-f]+|\d+))'


def number(text):
    return int(text, 0)


def strip_comment(line):
    out, quoted = [], False
    for ch in line:
        if ch == '"':
            quoted = not quoted
        if ch == '#' and not quoted:
            break
        out.append(ch)
    return ''.join(out).strip()


def split_params(text, where):
    parts, depth, current = [], 0, ''
    for ch in text:
        if ch == '(':
            depth += 1
        elif ch == ')':
            depth -= 1
        if ch == ',' and depth == 0:
            parts.append(current)
            current = ''
        else:
            current += ch
    if current.strip():
        parts.append(current)
    if any(not p.strip() for p in parts):
        fail(where, 'empty parameter')
    return [p.strip() for p in parts]


PARAM_RE = re.compile(r'^(Optional\s+)?(?:(ByVal|ByRef)\s+)?' + NAME_RE +
                      r'\s+As\s+([A-Za-z_][A-Za-z0-9_.]*)(?:\s*=\s*(.+))?$')
MEMBER_RE = re.compile(r'^(get|let|set|method)\s+' + NAME_RE + r'\((.*)\)\s*'
                       r'(?:As\s+([A-Za-z_][A-Za-z0-9_.]*)\s+)?dispid\s+' + NUMBER_RE +
                       r'(?:\s+help\s+"([^"]*)")?$')
FIELD_RE = re.compile('^' + NAME_RE + r'(?:\(([^)]*)\))?\s+As\s+([A-Za-z_][A-Za-z0-9_.]*)'
                      r'(?:\s+@\s*(\d+))?$')


def parse_default(text, where):
    text = text.strip()
    if text in ('True', 'False'):
        return text == 'True'
    if text.startswith('"') and text.endswith('"') and len(text) >= 2:
        return text[1:-1]
    try:
        return number(text)
    except ValueError:
        pass
    try:
        return float(text)
    except ValueError:
        fail(where, 'bad default value %r' % text)


def parse_param(text, where):
    m = PARAM_RE.match(text)
    if not m:
        fail(where, 'bad parameter %r' % text)
    optional, passing, name, type_name, default = m.groups()
    default = parse_default(default, where) if default is not None else None
    if isinstance(default, float):
        # oleaut32's writer under Wine records these unreadably.
        fail(where, 'a default must be a whole number, True, False or "text"')
    if default is not None and not optional:
        fail(where, 'parameter %s has a default but is not Optional' % name)
    return Param(name, type_name, passing == 'ByRef', bool(optional), default, where)


def parse_dims(text, where):
    if text.strip() == '':
        return None
    dims = []
    for part in text.split(','):
        m = re.match(r'^\s*' + NUMBER_RE + r'(?:\s+To\s+' + NUMBER_RE + r')?\s*$', part)
        if not m:
            fail(where, 'bad bounds %r' % part)
        lower, upper = (number(m.group(1)), number(m.group(2))) if m.group(2) else (0, number(m.group(1)))
        if upper < lower:
            fail(where, 'upper bound below lower bound in %r' % part)
        dims.append((lower, upper))
    return dims


class Block:
    """The block a description has open: its kind and what its lines fill."""

    def __init__(self, kind, obj):
        self.kind, self.obj = kind, obj
        self.enum = None  # in an import: the imported enum that takes constants


def parse_file(lib, path):
    with open(path, encoding='utf-8') as f:
        lines = f.readlines()
    block = None
    for line_number, raw in enumerate(lines, 1):
        where = Where(path, line_number)
        line = strip_comment(raw)
        if not line:
            continue
        if block is None:
            block = parse_header(lib, line, where)
        elif line == 'end':
            block = None
        else:
            parse_block_line(lib, block, line, where)
    if block is not None:
        fail(Where(path, len(lines)), 'block not closed by `end`')


def parse_block_line(lib, block, line, where):
    obj = block.obj
    if block.kind == 'import':
        parse_import_line(block, line, where)
    elif block.kind == 'order':
        lib.order.extend(line.split())
    elif block.kind in ('interface', 'events'):
        obj.members.append(parse_member(line, where))
    elif block.kind == 'coclass':
        parse_coclass_line(obj, line, where)
    elif block.kind == 'record':
        obj.fields.append(parse_field(line, where))
    elif block.kind == 'enum':
        m = re.match('^' + NAME_RE + r'\s*=\s*' + NUMBER_RE + '$', line)
        if not m:
            fail(where, 'expected `NAME = VALUE`')
        obj.constants.append((m.group(1), number(m.group(2))))


def parse_import_line(block, line, where):
    m = re.match(r'^(interface|enum)\s+' + NAME_RE + r'\s+' + GUID_RE + '$', line)
    if m:
        t = ImportedType(block.obj, m.group(1), m.group(2), m.group(3).upper())
        block.obj.types[t.name] = t
        block.enum = t if t.kind == 'enum' else None
        return
    m = re.match('^' + NAME_RE + r'\s*=\s*' + NUMBER_RE + '$', line)
    if m and block.enum is not None:
        block.enum.constants.append((m.group(1), number(m.group(2))))
        return
    fail(where, 'expected `interface NAME {IID}` or `enum NAME {GUID}` in an import')


def parse_member(line, where):
    m = MEMBER_RE.match(line)
    if not m:
        fail(where, 'bad member line')
    kind, name, params, result, dispid, help_text = m.groups()
    params = [parse_param(p, where) for p in split_params(params, where)]
    if kind in ('let', 'set'):
        if not params:
            fail(where, '%s %s takes its value as the last parameter' % (kind, name))
        if result:
            fail(where, 'a property put has no result')
    if kind == 'get' and not result:
        fail(where, 'a property get needs a result')
    return Member(kind, name, params, result, number(dispid), help_text, where)


def parse_coclass_line(coclass, line, where):
    m = re.match(r'^(default|source|earlier|creator)\s+' + NAME_RE + '$', line)
    if not m:
        fail(where, 'expected `default INTERFACE`, `source EVENTS`, `earlier ALIAS` or `creator FUNCTION`')
    if getattr(coclass, m.group(1)) is not None:
        fail(where, 'a second %s line' % m.group(1))
    setattr(coclass, m.group(1), m.group(2))


def parse_field(line, where):
    m = FIELD_RE.match(line)
    if not m:
        fail(where, 'bad field line')
    name, bounds, type_name, offset = m.groups()
    safearray = bounds is not None and bounds.strip() == ''
    dims = parse_dims(bounds, where) if bounds is not None else None
    return Field(name, type_name, dims, safearray, int(offset) if offset else None, where)


def add_type(lib, t):
    if t.name in lib.types:
        fail(t.where, '%s is described twice (first at %s)' % (t.name, lib.types[t.name].where))
    lib.types[t.name] = t


def parse_header(lib, line, where):
    """Reads the first line of a block, or a line that stands alone; the
    block it opens, if any."""
    head = line.split()[0]
    if head == 'library':
        parse_library_line(lib, line, where)
        return None
    if head == 'installer':
        parse_installer_line(lib, line, where)
        return None
    if head == 'import':
        imp = parse_import_header(line, where)
        lib.imports.append(imp)
        return Block('import', imp)
    if line == 'order':
        return Block('order', None)
    if head == 'alias':
        add_type(lib, parse_alias_line(line, where))
        return None
    t = parse_type_header(head, line, where)
    add_type(lib, t)
    return Block(head, t)


def parse_library_line(lib, line, where):
    m = re.match(r'^library\s+' + NAME_RE + r'\s+' + GUID_RE + r'\s+' + VERSION_RE +
                 r'\s+lcid\s+' + NUMBER_RE + r'\s+names_lcid\s+' + NUMBER_RE +
                 r'\s+progid_prefix\s+' + NAME_RE + '$', line)
    if not m:
        fail(where, 'bad library line')
    if lib.name:
        fail(where, 'a second library line')
    lib.name, lib.guid = m.group(1), m.group(2).upper()
    lib.version = (int(m.group(3)), int(m.group(4)))
    lib.lcid, lib.names_lcid = number(m.group(5)), number(m.group(6))
    lib.prog_id_prefix = m.group(7)


def parse_installer_line(lib, line, where):
    m = re.match(r'^installer\s+(\S+)\s+' + GUID_RE + '$', line)
    if not m or m.group(1) not in PLATFORMS:
        fail(where, 'expected `installer PLATFORM {UPGRADE_CODE}` for one of %s' % ', '.join(sorted(PLATFORMS)))
    if m.group(1) in lib.upgrade_codes:
        fail(where, 'a second installer line for %s' % m.group(1))
    lib.upgrade_codes[m.group(1)] = m.group(2).upper()


def parse_import_header(line, where):
    m = re.match(r'^import\s+' + NAME_RE + r'\s+' + GUID_RE + r'\s+' + VERSION_RE +
                 r'\s+lcid\s+' + NUMBER_RE + r'\s+file\s+(\S+)(\s+standin)?$', line)
    if not m:
        fail(where, 'bad import line')
    imp = Import(m.group(1), m.group(2).upper(), (int(m.group(3)), int(m.group(4))),
                 number(m.group(5)), m.group(6), where)
    imp.standin = m.group(7) is not None
    return imp


def parse_alias_line(line, where):
    m = re.match(r'^alias\s+' + NAME_RE + r'\s*=\s*' + NAME_RE + r'\s+' + GUID_RE + r'\s+' +
                 VERSION_RE + r'\s+flags\s+' + NUMBER_RE + '$', line)
    if not m:
        fail(where, 'bad alias line')
    t = TypeDef('alias', m.group(1), m.group(3).upper(), (int(m.group(4)), int(m.group(5))),
                number(m.group(6)), where)
    t.target = m.group(2)
    return t


def parse_type_header(head, line, where):
    if head in ('interface', 'events', 'coclass'):
        m = re.match('^' + head + r'\s+' + NAME_RE + r'\s+' + GUID_RE + r'\s+' + VERSION_RE +
                     r'\s+flags\s+' + NUMBER_RE + '$', line)
        if not m:
            fail(where, 'bad %s line' % head)
        return TypeDef(head, m.group(1), m.group(2).upper(), (int(m.group(3)), int(m.group(4))),
                       number(m.group(5)), where)
    if head in ('record', 'enum'):
        m = re.match('^' + head + r'\s+' + NAME_RE + r'\s+' + GUID_RE + r'\s+' + VERSION_RE +
                     r'(?:\s+size\s+(\d+))?$', line)
        if not m or (head == 'enum' and m.group(5)):
            fail(where, 'bad %s line' % head)
        t = TypeDef(head, m.group(1), m.group(2).upper(), (int(m.group(3)), int(m.group(4))),
                    0, where)
        t.declared_size = int(m.group(5)) if m.group(5) else None
        return t
    fail(where, 'unknown line %r' % line)


# ------------------------------------------------------------- type meaning
#
# A resolved type is a tuple tree:
#   ('base', NAME)                     automation base type
#   ('ptr', node)                      pointer
#   ('safearray', node)
#   ('carray', node, [(lower, upper)])
#   ('user', TypeDef | ImportedType)   reference to a named type

def lookup(lib, name, where):
    if '.' in name:
        lib_name, type_name = name.split('.', 1)
        for imp in lib.imports:
            if imp.name == lib_name and type_name in imp.types:
                return imp.types[type_name]
        fail(where, 'unknown imported type %s' % name)
    if name in lib.types:
        return lib.types[name]
    found = [imp.types[name] for imp in lib.imports if name in imp.types]
    if len(found) == 1:
        return found[0]
    fail(where, ('ambiguous type %s' if found else 'unknown type %s') % name)


def resolve(lib, name, where):
    """The type a name stands for as a parameter, result or field."""
    if name in lib.platform.base_types:
        return ('base', name)
    t = lookup(lib, name, where)
    if isinstance(t, TypeDef) and t.kind == 'coclass':
        if not t.default:
            fail(where, 'coclass %s has no default interface' % name)
        t = lib.types[t.default]
    if t.kind in ('interface', 'events'):
        return ('ptr', ('user', t))
    if t.kind == 'alias':
        target = lib.types[t.target]
        if target.kind in ('interface', 'events'):
            return ('ptr', ('user', t))
    return ('user', t)


def vartype_of(node, platform):
    """The VARTYPE a value of this type travels as in a VARIANT."""
    kind = node[0]
    if kind == 'base':
        return platform.vartype(node[1])
    if kind == 'safearray':
        return 'VT_ARRAY | ' + vartype_of(node[1], platform)
    if kind == 'ptr' and node[1][0] == 'user':
        t = node[1][1]
        return 'VT_DISPATCH' if t.kind in ('interface', 'events', 'alias') else 'VT_UNKNOWN'
    if kind == 'user':
        t = node[1]
        if t.kind == 'enum':
            return 'VT_I4'
        if t.kind == 'record':
            return 'VT_RECORD'
    raise DescriptionError('no VARTYPE for %r' % (node,))


def size_align(lib, node, laying_out):
    """Size and alignment of a value held inline; laying_out names the
    records whose layout is being worked out, outermost first."""
    kind = node[0]
    if kind == 'base':
        return lib.platform.size_align(node[1])
    if kind in ('ptr', 'safearray'):
        return lib.platform.pointer_size, lib.platform.pointer_size
    if kind == 'carray':
        size, align = size_align(lib, node[1], laying_out)
        count = 1
        for lower, upper in node[2]:
            count *= upper - lower + 1
        return size * count, align
    t = node[1]
    if isinstance(t, ImportedType) or t.kind == 'enum':
        return 4, 4
    if t.kind == 'record':
        layout(lib, t, laying_out)
        return t.size, t.alignment
    raise DescriptionError('%s cannot be held inline' % t.name)


def layout(lib, record, laying_out=()):
    if record.size is not None:
        return
    if record.name in laying_out:
        fail(record.where, 'record %s contains itself' % record.name)
    laying_out += (record.name,)
    checked = lib.platform.checks_annotated_layout()
    offset, alignment = 0, 1
    for field in record.fields:
        size, align = size_align(lib, field.node, laying_out)
        align = min(align, PACKING)
        alignment = max(alignment, align)
        offset = (offset + align - 1) // align * align
        field.offset = offset
        if checked and field.declared_offset is not None and field.declared_offset != offset:
            fail(field.where, 'field %s lands at offset %d, not %d' %
                 (field.name, offset, field.declared_offset))
        offset += size
    record.alignment = alignment
    record.size = (offset + alignment - 1) // alignment * alignment
    if checked and record.declared_size is not None and record.declared_size != record.size:
        fail(record.where, 'record %s is %d bytes, not %d' % (record.name, record.size,
                                                               record.declared_size))


def check(lib):
    if not lib.name:
        raise DescriptionError('no library line')
    place_types(lib)
    guids = {}
    for t in lib.ordered:
        if t.guid in guids:
            fail(t.where, '%s has the GUID of %s' % (t.name, guids[t.guid]))
        guids[t.guid] = t.name
    for t in lib.ordered:
        if t.kind in ('interface', 'events'):
            check_members(lib, t)
        elif t.kind == 'coclass':
            check_coclass(lib, t)
        elif t.kind == 'alias':
            if t.target not in lib.types:
                fail(t.where, 'alias of an undescribed type %s' % t.target)
        elif t.kind == 'record':
            resolve_fields(lib, t)
    for t in lib.ordered:
        if t.kind == 'record':
            layout(lib, t)
    check_earlier_interfaces(lib)
    for imp in lib.imports:
        if not imp.standin and any(it.constants for it in imp.types.values()):
            fail(imp.where, 'constants are written only into a stand-in library')


def place_types(lib):
    """The types in index order, each with its index: first those the order
    places, then the others as their descriptions were read."""
    seen = set()
    for name in lib.order:
        if name in seen:
            raise DescriptionError('%s appears twice in the order' % name)
        if name not in lib.types:
            raise DescriptionError('%s is in the order but not described' % name)
        seen.add(name)
    lib.ordered = [lib.types[n] for n in lib.order]
    lib.ordered += [t for t in lib.types.values() if t.name not in seen]
    for index, t in enumerate(lib.ordered):
        t.index = index


def check_members(lib, t):
    names = set()
    for m in t.members:
        key = (m.name, m.kind)
        if key in names:
            fail(m.where, '%s %s is described twice' % (m.kind, m.name))
        names.add(key)
        if t.kind == 'events' and m.kind != 'method':
            fail(m.where, 'an event is a method')
        m.result_node = resolve(lib, m.result, m.where) if m.result else None
        for p in m.params:
            p.node = resolve(lib, p.type_name, p.where)
        check_optional_params(m)
    dispids = {}
    for m in t.members:
        if dispids.setdefault(m.name, m.dispid) != m.dispid:
            fail(m.where, 'the get, let and set of %s must share one DISPID' % m.name)


def check_optional_params(m):
    seen_optional = False
    for i, p in enumerate(m.params):
        is_value = m.kind in ('let', 'set') and i == len(m.params) - 1
        if p.optional:
            if is_value:
                fail(p.where, 'the value of a put cannot be Optional')
            if p.default is None and p.node != ('base', 'Variant'):
                fail(p.where, 'Optional %s without a default must be a Variant' % p.name)
            seen_optional = True
        elif seen_optional and not is_value:
            fail(p.where, '%s follows an Optional parameter' % p.name)


def check_coclass(lib, t):
    for role, kind in (('default', 'interface'), ('source', 'events')):
        name = getattr(t, role)
        if name is not None and (name not in lib.types or lib.types[name].kind != kind):
            fail(t.where, '%s of %s must be a described %s' % (role, t.name, kind))
    if not t.default:
        fail(t.where, 'coclass %s has no default interface' % t.name)
    if not t.creator:
        fail(t.where, 'coclass %s names no creator' % t.name)
    if t.earlier is not None:
        alias = lib.types.get(t.earlier)
        if alias is None or alias.kind != 'alias' or alias.target != t.default:
            fail(t.where, 'earlier of %s must be an alias of %s' % (t.name, t.default))


def check_earlier_interfaces(lib):
    """An alias of a class's interface is an IID the class answers for, so
    the class must say so."""
    named = {t.earlier for t in classes(lib)}
    defaults = {t.default for t in classes(lib)}
    for t in lib.ordered:
        if t.kind == 'alias' and t.target in defaults and t.name not in named:
            fail(t.where, 'alias %s of a class\'s interface is no class\'s earlier interface' % t.name)


def classes(lib):
    """The coclasses in the order their descriptions were read: the class
    table's order."""
    return [t for t in lib.types.values() if t.kind == 'coclass']


def resolve_fields(lib, t):
    names = set()
    for f in t.fields:
        if f.name in names:
            fail(f.where, 'field %s is described twice' % f.name)
        names.add(f.name)
        node = resolve(lib, f.type_name, f.where)
        if f.safearray:
            node = ('safearray', node)
        elif f.dims:
            node = ('carray', node, f.dims)
        f.node = node


def parse(paths, platform):
    lib = Library(platform)
    for path in paths:
        parse_file(lib, path)
    check(lib)
    return lib


# ------------------------------------------------------------ C++ rendering

class GeneratedFile:
    """A generated file, written a line at a time; its first line says what
    it is generated from."""

    def __init__(self, source):
        self.lines = ['// Generated by tools/gen_types.py from %s; do not edit.' % source]

    def __call__(self, line):
        self.lines.append(line)

    def text(self):
        return '\n'.join(self.lines) + '\n'


def guid_parts(text):
    u = uuid.UUID(text)
    d = u.bytes
    data1, data2, data3 = struct.unpack('>IHH', d[:8])
    return data1, data2, data3, d[8:]


def guid_init(text):
    data1, data2, data3, tail = guid_parts(text)
    return '{0x%08X, 0x%04X, 0x%04X, {%s}}' % (data1, data2, data3,
                                               ', '.join('0x%02X' % b for b in tail))


def guid_bytes(text):
    """The in-memory layout: the first three groups little-endian."""
    return uuid.UUID(text).bytes_le


def cpp_string(text):
    if text is None:
        return 'nullptr'
    out = []
    for ch in text:
        if ch in '\\"':
            out.append('\\' + ch)
        elif 32 <= ord(ch) < 127:
            out.append(ch)
        else:
            out.append('\\x%04X' % ord(ch))
    return 'L"%s"' % ''.join(out)


def cpp_type(node):
    kind = node[0]
    if kind == 'base':
        return CPP_BASE_TYPES[node[1]]
    if kind == 'ptr':
        return cpp_type(node[1]) + '*'
    if kind == 'safearray':
        return 'SAFEARRAY*'
    if kind == 'user':
        return node[1].name
    raise DescriptionError('no C++ type for %r' % (node,))


def cpp_params(member):
    out = []
    for p in member.params:
        t = cpp_type(p.node)
        if p.by_ref:
            t += '*'
        out.append('%s %s' % (t, p.name))
    if member.result_node is not None:
        out.append('%s* result' % cpp_type(member.result_node))
    return ', '.join(out)


def cpp_field(field):
    node = field.node
    if node[0] == 'carray':
        element = cpp_type(node[1])
        # Automation arrays keep the first index fastest.
        extents = ''.join('[%d]' % (upper - lower + 1) for lower, upper in reversed(node[2]))
        return '%s %s%s;' % (element, field.name, extents)
    return '%s %s;' % (cpp_type(node), field.name)


def default_init(value, node, platform):
    """A member_default for the C++ member table."""
    if value is None:
        return '{VT_EMPTY, 0, 0.0, nullptr}'
    vt = default_vartype(value, node, platform)
    if vt == 'VT_BOOL':
        return '{VT_BOOL, %s, 0.0, nullptr}' % ('VARIANT_TRUE' if value else 'VARIANT_FALSE')
    if vt == 'VT_BSTR':
        return '{VT_BSTR, 0, 0.0, %s}' % cpp_string(value)
    if vt in ('VT_R4', 'VT_R8', 'VT_DATE'):
        return '{%s, 0, %r, nullptr}' % (vt, float(value))
    return '{%s, %d, 0.0, nullptr}' % (vt, value)


def default_vartype(value, node, platform):
    if isinstance(value, bool):
        return 'VT_BOOL'
    if isinstance(value, str):
        return 'VT_BSTR'
    vt = vartype_of(node, platform)
    if vt in ('VT_R4', 'VT_R8', 'VT_DATE', 'VT_I2', 'VT_UI1', 'VT_I4', 'VT_CY'):
        return vt if vt != 'VT_CY' else 'VT_I4'
    if vt == 'VT_VARIANT':
        return 'VT_R8' if isinstance(value, float) else 'VT_I4'
    if isinstance(value, float):
        return 'VT_R8'
    return 'VT_I4'


def interface_id_of(node):
    """The IID a parameter's object is asked for, or nullptr for any object."""
    if node[0] == 'ptr' and node[1][0] == 'user':
        t = node[1][1]
        if isinstance(t, ImportedType):
            return '&IID_%s' % t.name
        if t.kind == 'alias':
            return '&IID_%s' % t.target
        return '&%s%s' % ('IID_' if t.kind == 'interface' else 'DIID_', t.name)
    return 'nullptr'


def emit_call_thunk(w, t, name):
    """A function that calls member i of the interface through its vtable with
    arguments the dispatcher has prepared: args[k] addresses the value of
    parameter k (for a ByRef parameter, the variable itself), result the
    storage of the retval."""
    w('inline HRESULT %s(IDispatch* object, unsigned member, void* const* args, void* result) {' % name)
    w('    auto* self = static_cast<%s*>(object);' % t.name)
    if not t.members:
        w('    (void)self; (void)member; (void)args; (void)result;')
        w('    return DISP_E_MEMBERNOTFOUND;')
        w('}')
        return
    w('    (void)args; (void)result;')
    w('    switch (member) {')
    for i, m in enumerate(t.members):
        actuals = []
        for k, p in enumerate(m.params):
            ctype = cpp_type(p.node)
            if p.by_ref:
                actuals.append('static_cast<%s*>(args[%d])' % (ctype, k))
            else:
                actuals.append('*static_cast<%s*>(args[%d])' % (ctype, k))
        if m.result_node is not None:
            actuals.append('static_cast<%s*>(result)' % cpp_type(m.result_node))
        w('    case %d: return self->%s%s(%s);' % (i, CPP_PREFIX[m.kind], m.name, ', '.join(actuals)))
    w('    default: return DISP_E_MEMBERNOTFOUND;')
    w('    }')
    w('}')


def emit_header(lib):
    w = GeneratedFile('the .types descriptions')
    w('#pragma once')
    w('')
    w('#include <windows.h>')
    w('#include <oaidl.h>')
    w('#include <cstddef>')
    w('#include <ocidl.h>')
    w('')
    w('#include "frame/member_table.h"')
    w('#include "%s"' % IDENTITY_HEADER)
    w('')
    emit_guids(w, lib)
    emit_enums(w, lib)
    emit_records(w, lib)
    emit_interfaces(w, lib)
    for t in lib.ordered:
        if t.kind in ('interface', 'events'):
            emit_member_table(w, lib, t)
    emit_dispids(w, lib)
    emit_creators(w, lib)
    return w.text()


def emit_guids(w, lib):
    w('inline constexpr GUID LIBID_%s = vx::identity::libid;' % lib.name)
    w('')
    prefix = {'interface': 'IID_', 'events': 'DIID_', 'coclass': 'CLSID_', 'alias': 'IID_',
              'record': 'GUID_', 'enum': 'GUID_'}
    for t in lib.ordered:
        w('inline constexpr GUID %s%s%s;' % (prefix[t.kind], t.name, guid_init(t.guid)))
    w('')


def emit_enum(w, name, constants):
    # A Win32 header may define the name as a macro.
    w('#pragma push_macro("%s")' % name)
    w('#undef %s' % name)
    w('enum %s : LONG {' % name)
    for cname, value in constants:
        w('    %s = %d,' % (cname, value))
    w('};')
    w('#pragma pop_macro("%s")' % name)


def emit_enums(w, lib):
    for imp in lib.imports:
        for it in imp.types.values():
            if it.kind == 'enum':
                w('// From %s.' % imp.name)
                emit_enum(w, it.name, it.constants)
                w('')
    for t in lib.ordered:
        if t.kind == 'enum':
            emit_enum(w, t.name, t.constants)
            w('')


def emit_records(w, lib):
    # Records keep their published names inside the library's namespace:
    # OPENFILENAME and CHOOSECOLOR are also names of the Win32 headers.
    w('namespace %s {' % lib.name)
    w('')
    done = set()
    for t in lib.ordered:
        if t.kind == 'record':
            emit_record(w, t, done)
    w('}  // namespace %s' % lib.name)
    w('')


def emit_record(w, t, done):
    """The record after the records it holds, which come first."""
    if t.name in done:
        return
    for f in t.fields:
        n = f.node
        while n[0] in ('carray', 'safearray'):
            n = n[1]
        if n[0] == 'user' and isinstance(n[1], TypeDef) and n[1].kind == 'record':
            emit_record(w, n[1], done)
    done.add(t.name)
    w('#pragma push_macro("%s")' % t.name)
    w('#undef %s' % t.name)
    w('#pragma pack(push, %d)' % PACKING)
    w('struct %s {' % t.name)
    for f in t.fields:
        w('    %s' % cpp_field(f))
    w('};')
    w('#pragma pack(pop)')
    w('static_assert(sizeof(%s) == %d, "%s");' % (t.name, t.size, t.name))
    for f in t.fields:
        w('static_assert(offsetof(%s, %s) == %d, "%s.%s");' % (t.name, f.name, f.offset,
                                                                t.name, f.name))
    w('#pragma pop_macro("%s")' % t.name)
    w('')


def emit_interfaces(w, lib):
    for t in lib.ordered:
        if t.kind in ('interface', 'events'):
            w('struct %s;' % t.name)
    w('')
    for t in lib.ordered:
        if t.kind == 'interface':
            w('struct %s : public IDispatch {' % t.name)
            for m in t.members:
                w('    virtual HRESULT STDMETHODCALLTYPE %s%s(%s) = 0;' %
                  (CPP_PREFIX[m.kind], m.name, cpp_params(m)))
            w('};')
            w('')
        elif t.kind == 'events':
            w('// Events reach a sink through IDispatch::Invoke only.')
            w('struct %s : public IDispatch {};' % t.name)
            w('')
    for t in lib.ordered:
        if t.kind == 'alias':
            w('typedef %s %s;' % (t.target, t.name))
    w('')


def emit_member_table(w, lib, t):
    """What the dispatcher knows of an interface: its members and their
    parameters, and for a dual interface the thunk that calls them."""
    table = 'members_of_%s' % t.name
    for i, m in enumerate(t.members):
        if m.params:
            w('inline constexpr vx::member_param %s_%d[] = {' % (table, i))
            for p in m.params:
                w('    {%s, %s, %s, %s, %s, %s},' % (
                    cpp_string(p.name), vartype_of(p.node, lib.platform), 'true' if p.by_ref else 'false',
                    'true' if p.optional else 'false', default_init(p.default, p.node, lib.platform),
                    interface_id_of(p.node)))
            w('};')
    w('inline constexpr vx::member_entry %s[] = {' % table)
    for i, m in enumerate(t.members):
        slot = IDISPATCH_SLOTS + i if t.kind == 'interface' else 0
        w('    {%s, %s, %s, %d, %s, %s, %d},' % (
            cpp_string(m.name), dispid_literal(m.dispid), INVOKE_KINDS[m.kind], slot,
            vartype_of(m.result_node, lib.platform) if m.result_node else 'VT_EMPTY',
            '%s_%d' % (table, i) if m.params else 'nullptr', len(m.params)))
    if not t.members:
        w('    {nullptr, 0, INVOKE_FUNC, 0, VT_EMPTY, nullptr, 0},')
    w('};')
    call = 'nullptr'
    if t.kind == 'interface':
        call = 'call_%s' % t.name
        emit_call_thunk(w, t, call)
    w('inline constexpr vx::interface_members interface_members_of_%s{&%s%s, %s, %d, %s};' % (
        t.name, 'IID_' if t.kind == 'interface' else 'DIID_', t.name,
        table if t.members else 'nullptr', len(t.members), call))
    if t.kind == 'interface':
        w('inline const vx::interface_members& members_of(%s*) { return interface_members_of_%s; }' % (
            t.name, t.name))
    w('')


def dispid_literal(dispid):
    if -1000 < dispid < 1000:
        return '%d' % dispid
    return 'static_cast<DISPID>(0x%08X)' % (dispid & 0xFFFFFFFF)


def emit_dispids(w, lib):
    w('// Each member\'s DISPID by interface and name: dispid::_clsQuickSort::Sort.')
    w('namespace dispid {')
    for t in lib.ordered:
        if t.kind not in ('interface', 'events') or not t.members:
            continue
        w('namespace %s {' % t.name)
        named = set()
        for m in t.members:
            if m.name not in named:
                named.add(m.name)
                w('inline constexpr DISPID %s = %s;' % (m.name, dispid_literal(m.dispid)))
        w('}  // namespace %s' % t.name)
    w('}  // namespace dispid')
    w('')


def emit_creators(w, lib):
    w('namespace vx {')
    w('struct class_entry;')
    w('// Each class\'s creator, defined beside the class: a new instance that answers for iid.')
    for t in classes(lib):
        w('HRESULT %s(const class_entry& entry, REFIID iid, void** object);' % t.creator)
    w('}  // namespace vx')


# ------------------------------------------------------- identity and classes

IDENTITY_HEADER = 'library_identity.h'


def emit_identity(lib):
    w = GeneratedFile('the library line and the version file')
    w('// Who the component is: the frame and the tools take its name, ProgIDs and')
    w('// versions from here.')
    w('#pragma once')
    w('')
    w('#include <windows.h>')
    w('')
    w('namespace vx::identity {')
    w('')
    w('// The type library\'s name; also the source of the errors the frame raises')
    w('// itself and the caption of the message box.')
    w('inline constexpr wchar_t library_name[] = %s;' % cpp_string(lib.name))
    w('inline constexpr GUID libid%s;' % guid_init(lib.guid))
    w('inline constexpr WORD library_major_version = %d;' % lib.version[0])
    w('inline constexpr WORD library_minor_version = %d;' % lib.version[1])
    w('inline constexpr LCID library_lcid = 0x%X;' % lib.lcid)
    w('// A class\'s ProgID is this prefix and the class name.')
    w('inline constexpr wchar_t prog_id_prefix[] = %s;' % cpp_string(lib.prog_id_prefix + '.'))
    w('inline constexpr wchar_t module_file_name[] = %s;' % cpp_string(module_file_name(lib)))
    w('// The product and file version; the manifests give it in four numbers.')
    w('inline constexpr wchar_t version_text[] = %s;' % cpp_string(lib.product_version.text))
    w('inline constexpr char assembly_version[] = "%s";' % '.'.join(map(str, lib.product_version.numbers)))
    w('')
    w('}  // namespace vx::identity')
    return w.text()


def module_file_name(lib):
    return lib.name + '.dll'


def company_name(lib):
    """Who the version resource and the installers name as the maker."""
    return lib.name + ' developers'


def emit_class_table(lib):
    w = GeneratedFile('the .types descriptions')
    w('// The rows of the class table: every coclass, in the order its description')
    w('// was read.')
    w('#include "frame/class_table.h"')
    w('#include "%s"' % TYPES_HEADER)
    w('')
    w('#include <iterator>')
    w('')
    w('namespace vx {')
    w('')
    w('namespace {')
    w('')
    w('const class_entry rows[] = {')
    for t in classes(lib):
        w('    {%s, &CLSID_%s, &IID_%s, %s, %s, &interface_members_of_%s, &%s},' % (
            cpp_string(t.name), t.name, t.default, '&IID_%s' % t.earlier if t.earlier else 'nullptr',
            '&DIID_%s' % t.source if t.source else 'nullptr', t.default, t.creator))
    w('};')
    w('')
    w('}  // namespace')
    w('')
    w('const class_entry* class_table_begin() { return std::begin(rows); }')
    w('const class_entry* class_table_end() { return std::end(rows); }')
    w('')
    w('}  // namespace vx')
    return w.text()


def emit_class_names(lib):
    # For script clients, which create every class by its ProgID.
    return ''.join(t.name + '\n' for t in classes(lib))


def emit_version_resource(lib):
    version = lib.product_version
    numbers = ', '.join(map(str, version.numbers))
    w = GeneratedFile('the library line and the version file')
    for line in (
        '#include <winver.h>',
        '',
        'LANGUAGE 0x09, 0x01',
        'VS_VERSION_INFO VERSIONINFO',
        'FILEVERSION ' + numbers,
        'PRODUCTVERSION ' + numbers,
        'FILEFLAGSMASK 0x0',
        'FILEFLAGS 0x0',
        'FILEOS VOS__WINDOWS32',
        'FILETYPE VFT_DLL',
        'FILESUBTYPE VFT2_UNKNOWN',
        'BEGIN',
        '    BLOCK "StringFileInfo"',
        '    BEGIN',
        '        BLOCK "040904B0"',
        '        BEGIN',
        '            VALUE "CompanyName", "%s"' % company_name(lib),
        '            VALUE "ProductName", "%s"' % lib.name,
        '            VALUE "FileVersion", "%s"' % version.text,
        '            VALUE "ProductVersion", "%s"' % version.text,
        '            VALUE "InternalName", "%s"' % lib.name,
        '            VALUE "OriginalFilename", "%s"' % module_file_name(lib),
        '            VALUE "OLESelfRegister", ""',
        '        END',
        '    END',
        '    BLOCK "VarFileInfo"',
        '    BEGIN',
        '        VALUE "Translation", 0x0409, 1200',
        '    END',
        'END',
    ):
        w(line)
    return w.text()


# ------------------------------------------------------ writer data rendering

class NodeTable:
    """Flattens type trees into the writer's type_node rows."""

    def __init__(self, lib):
        self.lib = lib
        self.rows = []
        self.bounds = []
        self.refs = []          # (local index, import index, GUID)
        self.memo = {}

    def ref(self, t):
        if isinstance(t, ImportedType):
            key = (-1, self.lib.imports.index(t.library), t.guid)
        else:
            key = (t.index, -1, t.guid)
        if key not in self.refs:
            self.refs.append(key)
        return self.refs.index(key)

    def add(self, node):
        key = repr(self.key(node))
        if key in self.memo:
            return self.memo[key]
        kind = node[0]
        if kind == 'base':
            row = (self.lib.platform.vartype(node[1]), -1, -1, 0, -1)
        elif kind in ('ptr', 'safearray'):
            row = ('VT_PTR' if kind == 'ptr' else 'VT_SAFEARRAY', self.add(node[1]), -1, 0, -1)
        elif kind == 'carray':
            first = len(self.bounds)
            for lower, upper in node[2]:
                self.bounds.append((upper - lower + 1, lower))
            row = ('VT_CARRAY', self.add(node[1]), -1, len(node[2]), first)
        else:
            row = ('VT_USERDEFINED', -1, self.ref(node[1]), 0, -1)
        self.rows.append(row)
        self.memo[key] = len(self.rows) - 1
        return self.memo[key]

    def key(self, node):
        if node[0] == 'user':
            return ('user', node[1].name, id(node[1]))
        if node[0] == 'carray':
            return ('carray', self.key(node[1]), tuple(node[2]))
        if node[0] in ('ptr', 'safearray'):
            return (node[0], self.key(node[1]))
        return node


class ModelRows:
    """One library's types flattened into the writer's arrays: functions
    and their parameters, variables (record fields, enum constants),
    implemented interfaces, and an entry per type with its ranges in them."""

    def __init__(self, lib):
        self.lib = lib
        self.nodes = NodeTable(lib)
        self.funcs, self.params, self.vars, self.impls = [], [], [], []
        self.entries = []        # (TypeDef, entry)

    def add(self, t):
        entry = {'first_func': len(self.funcs), 'first_var': len(self.vars), 'first_impl': len(self.impls),
                 'alias': -1, 'size': -1, 'alignment': 4}
        if t.kind in ('interface', 'events'):
            for i, m in enumerate(t.members):
                self.add_member(m, IDISPATCH_SLOTS + i if t.kind == 'interface' else -1)
        elif t.kind == 'coclass':
            self.impls.append((self.nodes.ref(self.lib.types[t.default]), 'IMPLTYPEFLAG_FDEFAULT'))
            if t.source:
                self.impls.append((self.nodes.ref(self.lib.types[t.source]),
                                   'IMPLTYPEFLAG_FDEFAULT | IMPLTYPEFLAG_FSOURCE'))
        elif t.kind == 'alias':
            entry['alias'] = self.nodes.add(('user', self.lib.types[t.target]))
        elif t.kind == 'record':
            for i, f in enumerate(t.fields):
                self.vars.append((f.name, 0x40000000 + i, self.nodes.add(f.node), f.offset, f.name))
            entry['size'] = t.size
            entry['alignment'] = t.alignment
        elif t.kind == 'enum':
            for i, (name, value) in enumerate(t.constants):
                self.vars.append((name, 0x40000000 + i, self.nodes.add(('base', 'Long')), value, None))
            entry['size'] = 4
        entry['funcs'] = len(self.funcs) - entry['first_func']
        entry['vars'] = len(self.vars) - entry['first_var']
        entry['impls'] = len(self.impls) - entry['first_impl']
        self.entries.append((t, entry))

    def add_member(self, m, slot):
        first = len(self.params)
        count = len(m.params) + (1 if m.result_node is not None else 0)
        optional = 0
        for j, p in enumerate(m.params):
            node = ('ptr', p.node) if p.by_ref else p.node
            flags = ['PARAMFLAG_FIN']
            if p.by_ref:
                flags.append('PARAMFLAG_FOUT')
            if p.optional:
                flags.append('PARAMFLAG_FOPT')
                if p.default is not None:
                    flags.append('PARAMFLAG_FHASDEFAULT')
                else:
                    optional += 1
            is_value = m.kind in ('let', 'set') and j == len(m.params) - 1
            self.params.append((None if is_value else p.name, self.nodes.add(node), ' | '.join(flags),
                                p.default, p.node))
        if m.result_node is not None:
            self.params.append((None, self.nodes.add(('ptr', m.result_node)),
                                'PARAMFLAG_FOUT | PARAMFLAG_FRETVAL', None, None))
        self.funcs.append((m, first, count, optional, slot))


TYPE_KINDS = {'interface': 'dual_interface', 'events': 'dispinterface', 'coclass': 'coclass',
              'alias': 'alias', 'record': 'record', 'enum': 'enumeration'}


def emit_model(w, lib, prefix, types, imports):
    """One library as writer data: arrays named PREFIX_*."""
    rows = ModelRows(lib)
    for t in types:
        rows.add(t)

    def array(name, type_name, items):
        if not items:
            w('inline constexpr const %s* const %s_%s = nullptr;' % (type_name, prefix, name))
            return
        w('inline constexpr %s %s_%s[] = {' % (type_name, prefix, name))
        for item in items:
            w('    %s,' % item)
        w('};')

    nodes = rows.nodes
    array('nodes', 'type_node', ['{%s, %d, %d, %d, %d}' % r for r in nodes.rows])
    array('bounds', 'array_bound', ['{%d, %d}' % b for b in nodes.bounds])
    array('references', 'type_reference',
          ['{%d, %d, %s}' % (local, imp, guid_init(guid)) for local, imp, guid in nodes.refs])
    array('params', 'param_entry', ['{%s, %d, %s, %s}' % (cpp_string(name), node, flags,
                                                          default_row(default, vnode, lib.platform))
                                    for name, node, flags, default, vnode in rows.params])
    array('funcs', 'func_entry', ['{%s, static_cast<MEMBERID>(0x%08X), %s, %d, %d, %d, %d, %s}' % (
        cpp_string(m.name), m.dispid & 0xFFFFFFFF, INVOKE_KINDS[m.kind], first, count, optional,
        slot, cpp_string(m.help)) for m, first, count, optional, slot in rows.funcs])
    array('vars', 'var_entry', ['{%s, 0x%08X, %d, %d, %s}' % (cpp_string(name), memid, node,
                                                              value, cpp_string(doc))
                                for name, memid, node, value, doc in rows.vars])
    array('impls', 'impl_entry', ['{%d, %s}' % i for i in rows.impls])
    w('inline constexpr type_entry %s_types[] = {' % prefix)
    for t, e in rows.entries:
        w('    {type_kind::%s, %s, %s, %d, %d, 0x%04X, %d, %d, %d, %d, %d, %d, %d, %d, %d},' % (
            TYPE_KINDS[t.kind], cpp_string(t.name), guid_init(t.guid), t.version[0], t.version[1],
            t.flags, e['first_func'], e['funcs'], e['first_var'], e['vars'], e['first_impl'],
            e['impls'], e['alias'], e['size'], e['alignment']))
    w('};')
    array('imports', 'import_entry', ['{%s, %s, %d, %d, 0x%X, %s, %s}' % (
        cpp_string(i.name), guid_init(i.guid), i.version[0], i.version[1], i.lcid,
        'true' if i.standin else 'false', cpp_string(i.file)) for i in imports])


def default_row(value, node, platform):
    """A parameter's default as the writer's default_value."""
    if value is None:
        return '{VT_EMPTY, 0, 0.0, nullptr}'
    vt = default_vartype(value, node, platform)
    if vt == 'VT_BOOL':
        return '{VT_BOOL, %d, 0.0, nullptr}' % (-1 if value else 0)
    if vt == 'VT_BSTR':
        return '{VT_BSTR, 0, 0.0, %s}' % cpp_string(value)
    if vt in ('VT_R4', 'VT_R8', 'VT_DATE'):
        return '{%s, 0, %r, nullptr}' % (vt, float(value))
    return '{%s, %d, 0.0, nullptr}' % (vt, value)


def emit_description(w, prefix, lib, names_lcid, type_count, import_count):
    """The library_entry that ties a library's arrays together."""
    w('inline constexpr library_entry %s_description{' % prefix)
    w('    %s, %s, %d, %d, 0x%X, 0x%X, %s,' % (cpp_string(lib.name), guid_init(lib.guid),
                                              lib.version[0], lib.version[1], lib.lcid, names_lcid,
                                              lib.platform.syskind))
    w('    {0}_types, {1}, {0}_funcs, {0}_params, {0}_vars, {0}_impls,'.format(prefix, type_count))
    w('    {0}_nodes, {0}_bounds, {0}_references, {0}_imports, {1}}};'.format(prefix, import_count))


def emit_tables(lib):
    w = GeneratedFile('the .types descriptions')
    w('// The library as data for typelib_writer: what to write and what to find.')
    w('')
    emit_model(w, lib, 'library', lib.ordered, lib.imports)
    emit_description(w, 'library', lib, lib.names_lcid, len(lib.ordered), len(lib.imports))
    w('')
    standins = [i for i in lib.imports if i.standin]
    if len(standins) > 1:
        raise DescriptionError('only one stand-in library is supported')
    for imp in standins:
        emit_standin(w, lib, imp)
    return w.text()


def emit_standin(w, lib, imp):
    """The stand-in as a library of its own, holding the imported enums."""
    sub = Library(lib.platform)
    sub.name, sub.guid, sub.version, sub.lcid = imp.name, imp.guid, imp.version, imp.lcid
    types = []
    for it in imp.types.values():
        if it.kind != 'enum':
            raise DescriptionError('%s: a stand-in holds enums only' % imp.where)
        t = TypeDef('enum', it.name, it.guid, (0, 0), 0, imp.where)
        t.constants = it.constants
        t.index = len(types)
        types.append(t)
    emit_model(w, sub, 'standin', types, [])
    emit_description(w, 'standin', sub, imp.lcid, len(types), 0)


# ------------------------------------------------------------ IID resources

def emit_resources(lib, out_dir):
    w = GeneratedFile('the .types descriptions')
    w('// Each item: a 32-bit byte count, then the IIDs in memory layout.')
    w('// Leaves the neutral language in force for what follows.')
    for t in lib.ordered:
        if t.kind != 'coclass':
            continue
        items = []
        earlier = [guid_bytes(lib.types[t.earlier].guid)] if t.earlier else []
        iids = earlier + [guid_bytes(lib.types[t.default].guid)]
        items.append(('_IID_' + t.name.upper(), iids))
        if t.source:
            items.append(('_SRCIID_' + t.name.upper(), [guid_bytes(lib.types[t.source].guid)]))
        for type_name, guids in items:
            data = b''.join(guids)
            blob = struct.pack('<I', len(data)) + data
            # The item's bytes also stand here: the build recompiles this
            # script only when its own text changes.
            w('// %s: %s' % (type_name, ' '.join(
                '{%s}' % str(uuid.UUID(bytes_le=g)).upper() for g in guids)))
            w('//   %s' % blob.hex())
            file_name = type_name.lower().lstrip('_') + '.bin'
            write_if_changed(os.path.join(out_dir, file_name), blob)
            w('LANGUAGE 0, 0')
            w('1 %s "%s"' % (type_name, os.path.join(out_dir, file_name)))
    return w.text()


def write_if_changed(path, data):
    """Writes the file, and its folder, only where the bytes differ: a file
    that stays the same keeps its time, and what depends on it is not made
    again."""
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    if isinstance(data, str):
        data = data.encode('utf-8')
    try:
        with open(path, 'rb') as f:
            if f.read() == data:
                return
    except FileNotFoundError:
        pass
    with open(path, 'wb') as f:
        f.write(data)


TYPES_HEADER = 'vxTypes32_types.h'


def main(argv):
    arguments = argparse.ArgumentParser(prog='gen_types.py', description='Writes the generated files.')
    arguments.add_argument('--platform', choices=sorted(PLATFORMS), default='win32')
    arguments.add_argument('--version-file', required=True,
                           help='the file that holds the product version, MAJOR.MINOR.REVISION')
    arguments.add_argument('output_dir')
    arguments.add_argument('descriptions', nargs='+', metavar='TYPES',
                           help='the library\'s own description first, then the subsystems\'')
    options = arguments.parse_args(argv[1:])

    def files():
        lib = parse(options.descriptions, PLATFORMS[options.platform])
        lib.product_version = read_version(options.version_file)
        os.makedirs(options.output_dir, exist_ok=True)
        return {
            TYPES_HEADER: emit_header(lib),
            IDENTITY_HEADER: emit_identity(lib),
            'class_table.cpp': emit_class_table(lib),
            'class_names.txt': emit_class_names(lib),
            'version.rc': emit_version_resource(lib),
            'typelib_tables.inc': emit_tables(lib),
            'iid_resources.rc': emit_resources(lib, options.output_dir),
        }
    return generate('gen_types', options.output_dir, files)


def generate(program, output_dir, make_files):
    """Writes the files make_files() names (relative to output_dir) with
    their text; a fault in the descriptions is reported as the program's
    error, with nothing written, and gives exit status 1."""
    try:
        files = make_files()
    except (DescriptionError, OSError) as e:
        sys.stderr.write('%s: error: %s\n' % (program, e))
        return 1
    for name, text in files.items():
        write_if_changed(os.path.join(output_dir, name), text)
    return 0


def read_version(path):
    with open(path, encoding='utf-8') as f:
        lines = [line.strip() for line in f if line.strip()]
    if len(lines) != 1:
        raise DescriptionError('%s: one line, the version, is expected' % path)
    return ProductVersion(lines[0], Where(path, 1))


if __name__ == '__main__':
    sys.exit(main(sys.argv))
