// cDIBSection on real GDI: the states a section goes through, the blits checked by reading pixels back, the
// random fill, pictures and the clipboard.
#include "frame/runtime.h"
#include "imaging/gdi_handles.h"
#include "imaging/imaging_support.h"

#include <olectl.h>

#include <cstring>
#include <vector>

namespace vx::test {
namespace {

HGDIOBJ as_handle(LONG_PTR value) { return reinterpret_cast<HGDIOBJ>(value); }
bool released(const section_facts& f) { return !f.hdc && !f.hdib && !f.bits; }
bool deleted(const section_facts& f) { return !GetObjectType(as_handle(f.hdib)) && !GetObjectType(as_handle(f.hdc)); }

TEST(DibSectionStates, NewLiveReleasedAndRecreated) {
    com_ptr<_cDIBSection> section = new_section();
    section_facts f = facts_of(section.get());
    EXPECT_TRUE(released(f) && !f.width && !f.height && !f.stride) << "new: every property 0";
    EXPECT_EQ(S_OK, section->ClearUp()) << "ClearUp on a new instance does nothing";
    VARIANT_BOOL made = VARIANT_FALSE;
    ASSERT_EQ(S_OK, section->Create(100, 50, &made));
    const section_facts live = facts_of(section.get());
    EXPECT_TRUE(made && live.width == 100 && live.height == 50 && live.stride == 300 && live.bits);
    EXPECT_EQ(as_handle(live.hdib), GetCurrentObject(static_cast<HDC>(as_handle(live.hdc)), OBJ_BITMAP))
        << "the section is selected into the DC";
    DIBSECTION described = {};
    ASSERT_EQ(static_cast<int>(sizeof described), GetObjectW(as_handle(live.hdib), sizeof described, &described));
    EXPECT_TRUE(described.dsBm.bmBitsPixel == 24 && described.dsBmih.biSizeImage == 50 * 300u) << "24 bits, 50 x 300";
    std::memset(bits_of(section.get()), 0x5A, 50 * 300);  // every byte is writable
    ASSERT_EQ(S_OK, section->ClearUp());
    f = facts_of(section.get());
    EXPECT_TRUE(released(f) && deleted(live)) << "released: handles and address 0, both deleted";
    EXPECT_TRUE(f.width == 100 && f.height == 50 && f.stride == 300) << "released: the old size stays";
    EXPECT_EQ(S_OK, section->ClearUp()) << "ClearUp on a released instance does nothing";
    // A second Create deletes the first section even when it fails.
    ASSERT_EQ(S_OK, section->Create(8, 8, &made));
    const section_facts first = facts_of(section.get());
    ASSERT_EQ(S_OK, section->Create(0, 8, &made));
    f = facts_of(section.get());
    EXPECT_TRUE(!made && deleted(first) && released(f)) << "a section 0 pixels wide is refused, the first deleted";
    EXPECT_TRUE(f.width == 0 && f.height == 8) << "the header holds the refused size";
}

// The pixel at (x, y) as a DC sees it, y from the top: in a bottom-up section, scan line height - 1 - y.
unsigned char* pixel(_cDIBSection* section, long x, long y) {
    const section_facts f = facts_of(section);
    return bits_of(section) + (f.height - 1 - y) * f.stride + 3 * x;
}
std::uint32_t pixel_at(_cDIBSection* section, long x, long y) {  // 0xRRGGBB
    std::uint32_t rgb = 0;
    return std::memcpy(&rgb, pixel(section, x, y), 3), rgb;
}

// A pattern where every pixel of a picture differs.
std::uint32_t pattern(long x, long y) { return 0x400000u | (static_cast<std::uint32_t>(y * 7 + 1) << 8) | (x * 5 + 3); }

void fill(_cDIBSection* section, bool with_pattern) {
    const section_facts f = facts_of(section);
    for (long i = 0; i < f.width * f.height; ++i) {
        const std::uint32_t colour = with_pattern ? pattern(i % f.width, i / f.width) : 0x111111u;
        std::memcpy(pixel(section, i % f.width, i / f.width), &colour, 3);
    }
}

// A 6 x 8 section, taller than wide so that its width cannot stand in for its height unseen, meets a 30 x 40
// one. Every pixel of the destination is the pattern through the raster op inside the rectangle, and the
// 0x111111 it was filled with outside.
TEST(DibSectionBlits, CopyTheRectangleTheyAreGiven) {
    const struct {  // PaintPicture out of the section or LoadPictureBlt into it, its arguments after the DC,
        const char* label; bool paint; long args[6]; DWORD rop;  // the rectangle that changes and its source
        long left, top, width, height, source_left, source_top;
    } cases[] = {
        {"PaintPicture with every default", true, {0, 0, -1, -1, 0, 0}, SRCCOPY, 0, 0, 6, 8, 0, 0},
        {"PaintPicture: a negative size is its own", true, {10, 20, -5, -7, 0, 0}, NOTSRCCOPY, 10, 20, 6, 8, 0, 0},
        {"PaintPicture of a rectangle inside the section", true, {1, 2, 2, 3, 4, 3}, SRCCOPY, 1, 2, 2, 3, 4, 3},
        {"LoadPictureBlt from (5, 5), to the section's origin", false, {5, 5, -1, -9}, SRCCOPY, 0, 0, 6, 8, 5, 5},
    };
    for (const auto& c : cases) {
        com_ptr<_cDIBSection> section = new_section(6, 8), other = new_section(30, 40);
        _cDIBSection* destination = c.paint ? other.get() : section.get();
        fill(c.paint ? section.get() : other.get(), true);
        fill(destination, false);
        const RasterOpConstants rop = RasterOpConstants(c.rop);
        const LONG_PTR dc = facts_of(other.get()).hdc;
        const long* a = c.args;
        ASSERT_EQ(S_OK, c.paint ? section->PaintPicture(dc, a[0], a[1], a[2], a[3], a[4], a[5], rop)
                                : section->LoadPictureBlt(dc, a[0], a[1], a[2], a[3], rop));
        const section_facts f = facts_of(destination);
        for (long i = 0; i < f.width * f.height; ++i) {
            const long x = i % f.width, y = i / f.width;
            const bool inside = x >= c.left && x < c.left + c.width && y >= c.top && y < c.top + c.height;
            const std::uint32_t copied = pattern(c.source_left + x - c.left, c.source_top + y - c.top) ^
                                         (c.rop == SRCCOPY ? 0 : 0xFFFFFF);
            ASSERT_EQ(inside ? copied : 0x111111u, pixel_at(destination, x, y))
                << c.label << " at (" << x << ", " << y << ")";
        }
    }
}

// Reseeded from the time of day at every call: the same moment gives the same noise, another moment other
// noise. In colour blue stays 0, in gray the three channels agree; the padding is left alone. The test
// program's own copy of the class meets the clock it sets.
float moment;
float clock_reading() { return moment; }
TEST(DibSectionRandomiseBits, NoiseFromTheTimeOfDay) {
    const scoped_time_of_day_source clock(&clock_reading);
    for (VARIANT_BOOL gray : {VARIANT_FALSE, VARIANT_TRUE}) {
        std::vector<unsigned char> noise[3];
        for (int i = 0; i < 3; ++i) {
            moment = i == 2 ? 200.25f : 100.5f;
            auto section = create_local<_cDIBSection>(CLSID_cDIBSection, IID__cDIBSection);
            VARIANT_BOOL made = VARIANT_FALSE;
            ASSERT_TRUE(SUCCEEDED(section->Create(5, 3, &made)) && made);
            auto* bits = static_cast<unsigned char*>(std::memset(bits_of(section.get()), 0xAB, 16 * 3));
            ASSERT_EQ(S_OK, section->RandomiseBits(gray));
            noise[i].assign(bits, bits + 16 * 3);
            for (const unsigned char* p = bits; p < bits + 16 * 3; p += (p - bits) % 16 == 12 ? 4 : 3)
                EXPECT_TRUE((gray ? p[0] == p[1] && p[1] == p[2] : !p[0]) && ((p - bits) % 16 != 12 || p[3] == 0xAB))
                    << "byte " << p - bits << ": blue 0 in colour, three equal channels in gray; the padding kept";
        }
        EXPECT_TRUE(noise[0] == noise[1] && noise[0] != noise[2]) << "gray " << gray << ": the same moment, another";
    }
}

// A 32 x 16 picture of the pattern comes in whole, at the picture's size.
TEST(DibSectionCreateFromPicture, CopiesABitmapPicture) {
    BITMAPINFO info = {{sizeof(BITMAPINFOHEADER), 32, -16, 1, 32, BI_RGB, 0, 0, 0, 0, 0}, {}};
    void* bits = nullptr;
    PICTDESC description = {sizeof(PICTDESC), PICTYPE_BITMAP, {}};
    description.bmp.hbitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    ASSERT_TRUE(bits);
    for (long i = 0; i < 32 * 16; ++i) static_cast<std::uint32_t*>(bits)[i] = pattern(i % 32, i / 32);
    com_ptr<IPictureDisp> picture;
    ASSERT_EQ(S_OK, OleCreatePictureIndirect(&description, IID_IPictureDisp, TRUE, picture.put_void()));
    com_ptr<_cDIBSection> section = new_section(5, 5);
    IPictureDisp* argument = picture.get();
    unique_variant result;
    ASSERT_EQ(S_OK, section->CreateFromPicture(&argument, result.get()));
    const section_facts f = facts_of(section.get());
    ASSERT_TRUE(f.width == 32 && f.height == 16) << f.width << " x " << f.height;
    for (long i = 0; i < 32 * 16; ++i)
        ASSERT_EQ(pattern(i % 32, i / 32), pixel_at(section.get(), i % 32, i / 32)) << "pixel " << i;
}

// CopyToClipboard(False) leaves a bitmap of the section's size; an empty section one of its own, never the
// platform's shared stock bitmap, which the clipboard would delete; a negative size is refused.
TEST(DibSectionCopyToClipboard, LeavesABitmapOfTheSectionsSize) {
    const HGDIOBJ stock = GetCurrentObject(unique_hdc(CreateCompatibleDC(nullptr)).get(), OBJ_BITMAP);
    const struct { long width, height; bool copied; long bitmap_width, bitmap_height; } rows[] = {
        {37, 21, true, 37, 21}, {0, 0, true, 1, 1}, {-5, 4, false, 0, 0}};
    for (const auto& r : rows) {
        com_ptr<_cDIBSection> section = new_section();
        VARIANT_BOOL made = VARIANT_FALSE, copied = VARIANT_FALSE;
        section->Create(r.width, r.height, &made);  // the header holds even a refused size
        ASSERT_TRUE(section->CopyToClipboard(VARIANT_FALSE, &copied) == S_OK && (copied == VARIANT_TRUE) == r.copied)
            << r.width;
        BITMAP record = {};
        ASSERT_TRUE(OpenClipboard(nullptr));
        const HGDIOBJ bitmap = GetClipboardData(CF_BITMAP);
        EXPECT_TRUE(!r.copied || (bitmap != stock && GetObjectW(bitmap, sizeof record, &record) &&
                                  record.bmWidth == r.bitmap_width && record.bmHeight == r.bitmap_height))
            << r.width << ": " << record.bmWidth << " x " << record.bmHeight;
        EmptyClipboard(), CloseClipboard();
    }
}

}  // namespace
}  // namespace vx::test
