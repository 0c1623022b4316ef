// The shape of the data that tools/gen_types.py writes into
// typelib_tables.inc: one library as flat arrays that refer to each other by
// index, both what typelib_writer writes and what it expects to read back.
#pragma once

#include <windows.h>
#include <oaidl.h>

namespace typelib_model {

enum class type_kind { dual_interface, dispinterface, coclass, alias, record, enumeration };

// One node of a type tree. VT_PTR, VT_SAFEARRAY and VT_CARRAY name their
// element node; VT_USERDEFINED names a reference; anything else is a base type.
struct type_node {
    VARTYPE vt;
    int element;
    int reference;
    int dimensions;   // VT_CARRAY: bounds[first_bound .. +dimensions], in the order written
    int first_bound;
};

struct array_bound {
    ULONG elements;
    LONG lower;
};

// A named type: one of this library's (local_type) or an imported one
// (import, found there by GUID).
struct type_reference {
    int local_type;
    int import;
    GUID guid;
};

struct default_value {
    VARTYPE vt;         // VT_EMPTY: none
    LONG integer;       // VT_I2, VT_I4, VT_UI1; VT_BOOL as -1 or 0
    double real;        // VT_R4, VT_R8, VT_DATE
    const wchar_t* text;
};

struct param_entry {
    const wchar_t* name;  // null: not named in the library (retval, value of a put)
    int type;
    USHORT flags;
    default_value value;
};

struct func_entry {
    const wchar_t* name;
    MEMBERID id;
    INVOKEKIND invoke;
    int first_param;
    int params;
    int optional;       // cParamsOpt
    int vtable_slot;    // -1: a dispinterface member
    const wchar_t* help;
};

// A record field (value: its offset) or an enum constant (value: the constant).
struct var_entry {
    const wchar_t* name;
    MEMBERID id;
    int type;
    LONG value;
    const wchar_t* doc;
};

struct impl_entry {
    int reference;
    int flags;
};

struct type_entry {
    type_kind kind;
    const wchar_t* name;
    GUID guid;
    WORD major, minor;
    WORD flags;
    int first_func, funcs;
    int first_var, vars;
    int first_impl, impls;
    int alias_type;     // alias: the node it stands for
    LONG size;          // record and enum: cbSizeInstance; -1 not checked
    int alignment;
};

struct import_entry {
    const wchar_t* name;
    GUID libid;
    WORD major, minor;
    LCID lcid;
    bool standin;       // written by this build, loaded by path
    const wchar_t* file;  // the file name written for it
};

struct library_entry {
    const wchar_t* name;
    GUID guid;
    WORD major, minor;
    LCID lcid;
    LCID names_lcid;
    SYSKIND syskind;
    const type_entry* types;
    int type_count;
    const func_entry* funcs;
    const param_entry* params;
    const var_entry* vars;
    const impl_entry* impls;
    const type_node* nodes;
    const array_bound* bounds;
    const type_reference* references;
    const import_entry* imports;
    int import_count;
};

// The size of a vtable slot and of a pointer in the library's platform.
inline int pointer_size(const library_entry& library) { return library.syskind == SYS_WIN64 ? 8 : 4; }

}  // namespace typelib_model
