// Records as an automation client gets them from the platform's IRecordInfo
// over the DLL's embedded type library. Names, GUIDs and fields are in the
// library's fingerprint, offsets in the writer's own check; this is the size
// a client allocates and what an empty record holds.
#include "support/component.h"
#include "vxTypes32_types.h"

#include <vector>

namespace vx::test {
namespace {

using namespace vxTypes32;

com_ptr<IRecordInfo> record_info(const GUID& type) {
    com_ptr<ITypeLib> library;
    com_ptr<ITypeInfo> info;
    com_ptr<IRecordInfo> record;
    EXPECT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    if (library && library->GetTypeInfoOfGuid(type, info.put()) == S_OK) {
        EXPECT_EQ(S_OK, GetRecordInfoFromTypeInfo(info.get(), record.put()));
    }
    return record;
}

// The published sizes are the 32-bit layout's; a 64-bit build's follow from
// pointer-sized fields, as its generated declarations have them.
constexpr ULONG layout_size(std::size_t declared, ULONG published) {
    return sizeof(void*) == 4 ? published : static_cast<ULONG>(declared);
}

TEST(RecordInfo, EveryRecordHasItsSizeAndInitsToZeroes) {
    const struct { const GUID* type; ULONG size; } records[] = {
        {&GUID_IPDataRecord, layout_size(sizeof(IPDataRecord), 256)},
        {&GUID_Veltrax_point_transform, layout_size(sizeof(Veltrax_point_transform), 124)},
        {&GUID_datum_transform, layout_size(sizeof(datum_transform), 316)},
        {&GUID_Coordinate_System, layout_size(sizeof(Coordinate_System), 308)},
        {&GUID_OPENFILENAME, layout_size(sizeof(OPENFILENAME), 76)},
        {&GUID_CHOOSECOLOR, layout_size(sizeof(CHOOSECOLOR), 36)},
        {&GUID_BrowseInfo, layout_size(sizeof(BrowseInfo), 32)},
        {&GUID_Veltrax_posting_file, layout_size(sizeof(Veltrax_posting_file), 6124)},
        {&GUID_Veltrax_posting_field, layout_size(sizeof(Veltrax_posting_field), 176)},
        {&GUID_Veltrax_posting_source, layout_size(sizeof(Veltrax_posting_source), 29796)},
        {&GUID_Veltrax_facet_file, layout_size(sizeof(Veltrax_facet_file), 52)},
    };
    for (const auto& r : records) {
        com_ptr<IRecordInfo> info = record_info(*r.type);
        ASSERT_TRUE(info) << r.size;
        ULONG size = 0;
        EXPECT_TRUE(info->GetSize(&size) == S_OK && size == r.size) << r.size << ", got " << size;
        std::vector<unsigned char> bytes(r.size + 8, 0xA5), expected(r.size, 0);
        expected.resize(r.size + 8, 0xA5);  // nothing past the end is written
        ASSERT_EQ(S_OK, info->RecordInit(bytes.data())) << r.size;
        EXPECT_EQ(expected, bytes) << r.size;
    }
}

}  // namespace
}  // namespace vx::test
