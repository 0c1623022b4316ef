// The classes this DLL serves, put together: the rows of the class table
// that activation, registration and the manifests read.
#include "frame/class_table.h"

#include "complex/complex_number.h"
#include "component/anchor.h"
#include "imaging/dib_section.h"
#include "imaging/masked_bitmap.h"
#include "registry/easy_registry.h"
#include "sort/quick_sort.h"
#include "sysinfo/user_info.h"
#include "vxTypes32_types.h"

#include <iterator>

namespace vx {

namespace {

// A class joins this table once it is built.
const class_entry rows[] = {
    {L"Class_vxTypes32", &CLSID_Class_vxTypes32, &IID__Class_vxTypes32, nullptr, nullptr,
     &interface_members_of__Class_vxTypes32, &create_anchor},
    {L"CComplexNumber", &CLSID_CComplexNumber, &IID__CComplexNumber, nullptr, nullptr,
     &interface_members_of__CComplexNumber, &create_complex_number},
    {L"UserInfo", &CLSID_UserInfo, &IID__UserInfo, &IID_UserInfo___v0, nullptr, &interface_members_of__UserInfo,
     &create_user_info},
    {L"cDIBSection", &CLSID_cDIBSection, &IID__cDIBSection, nullptr, nullptr, &interface_members_of__cDIBSection,
     &create_dib_section},
    {L"clsBitmap", &CLSID_clsBitmap, &IID__clsBitmap, nullptr, nullptr, &interface_members_of__clsBitmap,
     &create_masked_bitmap},
    {L"clsEasyRegistry", &CLSID_clsEasyRegistry, &IID__clsEasyRegistry, nullptr, nullptr,
     &interface_members_of__clsEasyRegistry, &create_easy_registry},
    {L"clsQuickSort", &CLSID_clsQuickSort, &IID__clsQuickSort, nullptr, &DIID___clsQuickSort,
     &interface_members_of__clsQuickSort, &create_quick_sort},
};

}  // namespace

const class_entry* class_table_begin() { return std::begin(rows); }
const class_entry* class_table_end() { return std::end(rows); }

}  // namespace vx
