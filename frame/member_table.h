// The shape of the member tables that tools/gen_types.py writes for each
// interface: plain data, one row per member in vtable order, so that a
// dispatcher can find a member by DISPID and invoke kind without the type
// library.
#pragma once

#include <windows.h>
#include <oaidl.h>

namespace vx {

// A parameter's default as the type library records it; VT_EMPTY for none.
struct member_default {
    VARTYPE type;
    LONG integer;        // VT_I2, VT_I4, VT_UI1, VT_BOOL (VARIANT_TRUE is -1)
    double real;         // VT_R4, VT_R8, VT_DATE
    const wchar_t* text; // VT_BSTR
};

struct member_param {
    const wchar_t* name;
    VARTYPE type;        // as it travels in a VARIANT, without VT_BYREF
    bool by_reference;   // [in, out] pointer
    bool optional;
    member_default default_value;
    const IID* interface_id;  // the interface an object argument is asked for; null: any
};

struct member_entry {
    const wchar_t* name;
    DISPID dispid;
    INVOKEKIND invoke_kind;
    unsigned vtable_slot;    // counted from the start of the vtable; 0 for events
    VARTYPE result_type;     // the [out, retval] type, VT_EMPTY for none
    const member_param* params;  // the value of a put is the last
    unsigned param_count;        // not counting the retval
};

// Calls member `member` through the vtable: args[k] addresses parameter k's
// value (a ByRef parameter's variable), result the retval's storage.
using member_call = HRESULT (*)(IDispatch* object, unsigned member, void* const* args, void* result);

struct interface_members {
    const IID* iid;
    const member_entry* members;
    unsigned count;
    member_call call;  // null for an events interface
};

}  // namespace vx
