#include "frame/class_table.h"

namespace vx {

bool class_entry::answers_for(REFIID iid) const {
    return IsEqualIID(iid, *interface_id) || (earlier_interface_id && IsEqualIID(iid, *earlier_interface_id));
}

const class_entry* find_class(REFCLSID clsid) {
    for (const class_entry& entry : class_table())
        if (IsEqualCLSID(clsid, *entry.clsid)) return &entry;
    return nullptr;
}

}  // namespace vx
