// Long loops of both imaging classes leave the process with as many GDI
// objects as before.
#include "imaging/imaging_support.h"

namespace vx::test {
namespace {

void one_section_round() {
    com_ptr<_cDIBSection> section = new_section(40, 30), larger, same;
    section->RandomiseBits(VARIANT_FALSE);
    section->Resample(45, 61, larger.put());
    section->Resample(30, 40, same.put());
    VARIANT_BOOL made = VARIANT_FALSE;
    section->Create(12, 9, &made);  // a second Create releases the first
    section->Create(0, 9, &made);   // and a refused one too
}

void one_masked_round() {
    HDC screen = GetDC(nullptr);
    HBITMAP bitmap = CreateCompatibleBitmap(screen, 20, 10), second = CreateCompatibleBitmap(screen, 5, 5);
    ReleaseDC(nullptr, screen);
    {
        com_ptr<_clsBitmap> masked = create<_clsBitmap>(CLSID_clsBitmap, IID__clsBitmap);
        LONG_PTR handle = reinterpret_cast<LONG_PTR>(bitmap), dc = 0;
        VARIANT_BOOL done = VARIANT_FALSE;
        masked->SetBitmap(&handle, &done);
        masked->get_InvertImageDC(&dc);
        masked->get_MaskDC(&dc);
        handle = reinterpret_cast<LONG_PTR>(second);
        masked->SetBitmap(&handle, &done);
    }
    DeleteObject(bitmap);
    DeleteObject(second);
}

TEST(GdiUse, LoopsLeaveNoObjectsBehind) {
    for (void (*round)() : {one_section_round, one_masked_round}) {
        for (int i = 0; i < 5; ++i) round();  // the platform's own first-use objects
        const long before = gdi_object_count();
        ASSERT_GT(before, 0) << "GDI objects can be counted";
        for (int i = 0; i < 400; ++i) round();
        EXPECT_EQ(before, gdi_object_count()) << (round == one_section_round ? "cDIBSection" : "clsBitmap");
    }
}

}  // namespace
}  // namespace vx::test
