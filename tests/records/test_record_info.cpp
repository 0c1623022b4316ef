// Records through the platform's IRecordInfo over the DLL's type library: the
// size a client allocates and what an empty record holds (names, GUIDs and
// fields are in the library's fingerprint, offsets in the writer's own check).
#include "support/component.h"
#include "vxTypes32_types.h"

#include <vector>

namespace vx::test {
namespace {

using namespace vxTypes32;

// The published sizes, the 32-bit layout's and the 64-bit one's (the same
// 4-byte packing with pointer-sized fields).
constexpr ULONG layout_size(ULONG win32, ULONG win64) { return sizeof(void*) == 4 ? win32 : win64; }

TEST(RecordInfo, EveryRecordHasItsSizeAndInitsToZeroes) {
    const struct { const GUID* type; ULONG size; } records[] = {
        {&GUID_IPDataRecord, layout_size(256, 280)},          {&GUID_Veltrax_point_transform, layout_size(124, 124)},
        {&GUID_datum_transform, layout_size(316, 320)},       {&GUID_Coordinate_System, layout_size(308, 312)},
        {&GUID_OPENFILENAME, layout_size(76, 124)},           {&GUID_CHOOSECOLOR, layout_size(36, 60)},
        {&GUID_BrowseInfo, layout_size(32, 56)},              {&GUID_Veltrax_posting_file, layout_size(6124, 7304)},
        {&GUID_Veltrax_posting_field, layout_size(176, 220)}, {&GUID_Veltrax_posting_source, layout_size(29796, 36700)},
        {&GUID_Veltrax_facet_file, layout_size(52, 60)},
    };
    com_ptr<ITypeLib> library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    for (const auto& r : records) {
        com_ptr<ITypeInfo> type;
        com_ptr<IRecordInfo> info;
        ASSERT_TRUE(library->GetTypeInfoOfGuid(*r.type, type.put()) == S_OK &&
                    GetRecordInfoFromTypeInfo(type.get(), info.put()) == S_OK) << r.size;
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
