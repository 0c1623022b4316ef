// The class table: the one list of the classes this DLL serves. Activation,
// registration and the class's own identity (QueryInterface, class info)
// all read it.
#pragma once

#include "frame/member_table.h"

#include <windows.h>

namespace vx {

struct class_entry;

// Makes a new instance of the class and answers for iid.
using create_function = HRESULT (*)(const class_entry& entry, REFIID iid, void** object);

struct class_entry {
    const wchar_t* name;   // class name, the last part of the ProgID
    const CLSID* clsid;
    // Every IID the default interface answers to: the current one first,
    // then an earlier identity that stays in force, if any.
    const IID* interface_id;
    const IID* earlier_interface_id;
    const IID* source_interface;  // default source (events), or null
    const interface_members* members;  // of the default interface
    create_function create;

    bool answers_for(REFIID iid) const;
};

// The rows, in a fixed order. The frame only declares them: they are
// generated from the .types descriptions, a row for each coclass.
const class_entry* class_table_begin();
const class_entry* class_table_end();

struct class_table_view {
    const class_entry* begin() const { return class_table_begin(); }
    const class_entry* end() const { return class_table_end(); }
};
inline class_table_view class_table() { return {}; }

const class_entry* find_class(REFCLSID clsid);

}  // namespace vx
