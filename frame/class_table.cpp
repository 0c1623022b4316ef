#include "frame/class_table.h"

#include "frame/anchor.h"
#include "sysinfo/user_info.h"
#include "vxTypes32_types.h"

#include <iterator>

namespace vx {

namespace {

// A class joins this table once it is built.
const class_entry rows[] = {
    {L"Class_vxTypes32", &CLSID_Class_vxTypes32, &IID__Class_vxTypes32, nullptr, nullptr,
     &interface_members_of__Class_vxTypes32, &create_anchor},
    {L"UserInfo", &CLSID_UserInfo, &IID__UserInfo, &IID_UserInfo___v0, nullptr, &interface_members_of__UserInfo,
     &create_user_info},
};

}  // namespace

bool class_entry::answers_for(REFIID iid) const {
    return IsEqualIID(iid, *interface_id) || (earlier_interface_id && IsEqualIID(iid, *earlier_interface_id));
}

const class_entry* class_table_begin() { return std::begin(rows); }
const class_entry* class_table_end() { return std::end(rows); }

const class_entry* find_class(REFCLSID clsid) {
    for (const class_entry& entry : class_table())
        if (IsEqualCLSID(clsid, *entry.clsid)) return &entry;
    return nullptr;
}

}  // namespace vx
