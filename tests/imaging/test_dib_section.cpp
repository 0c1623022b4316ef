// cDIBSection on real GDI: scan-line lengths, the states a section goes
// through, the overflow of the size arithmetic, and the two blits checked by
// reading pixels back.
#include "imaging/imaging_support.h"

#include <cstring>
#include <string>
#include <vector>

namespace vx::test {
namespace {

TEST(DibSectionScanLine, ThreeBytesAPixelRoundedUpToFour) {
    struct row {
        long width;
        long expected;
    };
    const row rows[] = {{1, 4}, {2, 8}, {3, 12}, {4, 12}, {5, 16}, {100, 300}, {101, 304}};
    for (const row& r : rows) {
        com_ptr<_cDIBSection> section = new_section(r.width, 2);
        LONG stride = -1;
        EXPECT_EQ(S_OK, section->get_BytesPerScanLine(&stride));
        EXPECT_EQ(r.expected, stride) << "width " << r.width;
    }
    LONG stride = -1;
    EXPECT_EQ(S_OK, new_section()->get_BytesPerScanLine(&stride));
    EXPECT_EQ(0, stride) << "a new instance";
}

TEST(DibSectionStates, NewLiveReleasedAndRecreated) {
    com_ptr<_cDIBSection> section = new_section();
    section_facts f = facts_of(section.get());
    EXPECT_EQ(0, f.width + f.height + f.stride + f.hdc + f.hdib + f.bits) << "new: every property 0";
    EXPECT_EQ(S_OK, section->ClearUp()) << "ClearUp on a new instance does nothing";

    VARIANT_BOOL made = VARIANT_FALSE;
    ASSERT_EQ(S_OK, section->Create(100, 50, &made));
    EXPECT_EQ(VARIANT_TRUE, made);
    const section_facts live = facts_of(section.get());
    EXPECT_EQ(100, live.width);
    EXPECT_EQ(50, live.height);
    EXPECT_EQ(300, live.stride);
    EXPECT_NE(0, live.hdc);
    EXPECT_NE(0, live.hdib);
    EXPECT_NE(0, live.bits);
    const HGDIOBJ old_section = reinterpret_cast<HGDIOBJ>(static_cast<LONG_PTR>(live.hdib));
    const HDC old_dc = reinterpret_cast<HDC>(static_cast<LONG_PTR>(live.hdc));
    EXPECT_EQ(old_section, GetCurrentObject(old_dc, OBJ_BITMAP)) << "the section is selected into the DC";
    DIBSECTION described = {};
    ASSERT_EQ(static_cast<int>(sizeof described), GetObjectW(old_section, sizeof described, &described));
    EXPECT_EQ(24, described.dsBm.bmBitsPixel);
    EXPECT_EQ(50 * 300u, described.dsBmih.biSizeImage) << "the memory spans 50 scan lines of 300 bytes";
    std::memset(bits_of(section.get()), 0x5A, 50 * 300);  // every byte is writable

    ASSERT_EQ(S_OK, section->ClearUp());
    f = facts_of(section.get());
    EXPECT_EQ(0, f.hdc + f.hdib + f.bits) << "released: handles and address 0";
    EXPECT_EQ(100, f.width) << "released: the old width stays";
    EXPECT_EQ(50, f.height) << "released: the old height stays";
    EXPECT_EQ(300, f.stride);
    EXPECT_EQ(0u, GetObjectType(old_section)) << "ClearUp deleted the section";
    EXPECT_EQ(0u, GetObjectType(old_dc)) << "ClearUp deleted the DC";
    EXPECT_EQ(S_OK, section->ClearUp()) << "ClearUp on a released instance does nothing";

    // A second Create deletes the first section even when it fails.
    ASSERT_EQ(S_OK, section->Create(8, 8, &made));
    const section_facts first = facts_of(section.get());
    ASSERT_EQ(S_OK, section->Create(0, 8, &made));
    EXPECT_EQ(VARIANT_FALSE, made) << "a section 0 pixels wide is refused";
    EXPECT_EQ(0u, GetObjectType(reinterpret_cast<HGDIOBJ>(static_cast<LONG_PTR>(first.hdib))));
    EXPECT_EQ(0u, GetObjectType(reinterpret_cast<HGDIOBJ>(static_cast<LONG_PTR>(first.hdc))));
    f = facts_of(section.get());
    EXPECT_EQ(0, f.hdc + f.hdib + f.bits) << "a failed Create leaves the instance released";
    EXPECT_EQ(0, f.width) << "the header holds the refused size";
    EXPECT_EQ(8, f.height);
}

TEST(DibSectionOverflow, SizeArithmeticRaisesError6) {
    struct row {
        const char* label;
        long width, height;
        bool scan_line_overflows;
    };
    const row rows[] = {
        {"width 715,827,882", 715827882, 1, true},
        {"width -715,827,883", -715827883, 1, true},
        {"height x scan line", 100000, 100000, false},
        {"negative height x scan line", 100000, -100000, false},
    };
    for (const row& r : rows) {
        com_ptr<_cDIBSection> section = new_section();
        VARIANT_BOOL made = VARIANT_TRUE;
        const HRESULT hr = section->Create(r.width, r.height, &made);
        EXPECT_EQ(automation_error_number(6), hr) << r.label;
        EXPECT_EQ(L"cDIBSection.Create", take_error_info().source) << r.label;
        section_facts f = facts_of(section.get());
        EXPECT_EQ(r.width, f.width) << r.label << ": the header holds the new width";
        EXPECT_EQ(r.height, f.height) << r.label;
        EXPECT_NE(0, f.hdc) << r.label << ": the new DC stays in the instance";
        EXPECT_EQ(0, f.hdib) << r.label << ": no section";
        LONG stride = 0;
        EXPECT_EQ(r.scan_line_overflows ? automation_error_number(6) : S_OK, section->get_BytesPerScanLine(&stride))
            << r.label;
        LONG_PTR handle = 0;
        EXPECT_EQ(automation_error_number(6), section->CreateDIB(0, r.width, r.height, &handle, &made)) << r.label;
        EXPECT_EQ(0, handle) << r.label << ": CreateDIB made nothing";
        EXPECT_EQ(S_OK, section->RandomiseBits(VARIANT_FALSE)) << r.label << ": nothing to write";
    }
    // The last width that fits.
    com_ptr<_cDIBSection> section = new_section();
    LONG_PTR handle = 0;
    VARIANT_BOOL made = VARIANT_FALSE;
    section->CreateDIB(0, 715827881, 0, &handle, &made);
    LONG stride = 0;
    EXPECT_EQ(S_OK, section->get_BytesPerScanLine(&stride));
    EXPECT_EQ(2147483644, stride);
}

// A pattern where every pixel of a picture differs.
std::uint32_t pattern(long x, long y) { return 0x400000u | (static_cast<std::uint32_t>(y * 7 + 1) << 8) | (x * 5 + 3); }

void fill(_cDIBSection* section, std::uint32_t (*colour)(long, long)) {
    const section_facts f = facts_of(section);
    for (long y = 0; y < f.height; ++y)
        for (long x = 0; x < f.width; ++x) set_pixel(section, x, y, colour(x, y));
}

void fill(_cDIBSection* section, std::uint32_t colour) {
    const section_facts f = facts_of(section);
    for (long y = 0; y < f.height; ++y)
        for (long x = 0; x < f.width; ++x) set_pixel(section, x, y, colour);
}

struct blit_case {
    const char* label;
    long args[6];  // left, top, width, height, source left, source top
    DWORD rop;
    // The rectangle that changes, in destination coordinates, and where it
    // comes from.
    long left, top, width, height, source_left, source_top;
};

TEST(DibSectionPaintPicture, CopiesTheRectangleItIsGiven) {
    const DWORD copy = SRCCOPY;
    const blit_case cases[] = {
        {"every default", {0, 0, -1, -1, 0, 0}, copy, 0, 0, 8, 6, 0, 0},
        {"negative width: the section's, -5 as -1", {10, 20, -5, 4, 0, 0}, copy, 10, 20, 8, 4, 0, 0},
        {"negative height", {3, 4, 2, -7, 0, 0}, copy, 3, 4, 2, 6, 0, 0},
        {"a rectangle inside the section", {1, 2, 3, 2, 4, 3}, copy, 1, 2, 3, 2, 4, 3},
        {"raster op passed unchanged", {5, 5, -1, -1, 0, 0}, NOTSRCCOPY, 5, 5, 8, 6, 0, 0},
    };
    for (const blit_case& c : cases) {
        com_ptr<_cDIBSection> section = new_section(8, 6), target = new_section(30, 40);
        fill(section.get(), pattern);
        fill(target.get(), 0x000000u);
        const LONG target_dc = facts_of(target.get()).hdc;
        ASSERT_EQ(S_OK, section->PaintPicture(target_dc, c.args[0], c.args[1], c.args[2], c.args[3], c.args[4],
                                              c.args[5], RasterOpConstants(c.rop)));
        for (long y = 0; y < 40; ++y) {
            for (long x = 0; x < 30; ++x) {
                const bool inside = x >= c.left && x < c.left + c.width && y >= c.top && y < c.top + c.height;
                std::uint32_t expected = 0;
                if (inside) {
                    expected = pattern(c.source_left + x - c.left, c.source_top + y - c.top);
                    if (c.rop == NOTSRCCOPY) expected = ~expected & 0xFFFFFF;
                }
                ASSERT_EQ(expected, pixel_at(target.get(), x, y)) << c.label << " at (" << x << ", " << y << ")";
            }
        }
    }
}

TEST(DibSectionLoadPictureBlt, FillsTheSectionFromItsOrigin) {
    const blit_case cases[] = {
        {"every default", {0, 0, -1, -1}, SRCCOPY, 0, 0, 8, 6, 0, 0},
        {"from (5, 5), the section's size", {5, 5, -1, -1}, SRCCOPY, 0, 0, 8, 6, 5, 5},
        {"a smaller rectangle", {2, 3, 4, 2}, SRCCOPY, 0, 0, 4, 2, 2, 3},
        {"any negative height", {1, 1, 3, -9}, SRCCOPY, 0, 0, 3, 6, 1, 1},
        {"raster op passed unchanged", {0, 0, 5, 5}, BLACKNESS, 0, 0, 5, 5, 0, 0},
    };
    for (const blit_case& c : cases) {
        com_ptr<_cDIBSection> section = new_section(8, 6), picture = new_section(30, 40);
        fill(picture.get(), pattern);
        fill(section.get(), 0x111111u);
        const LONG picture_dc = facts_of(picture.get()).hdc;
        ASSERT_EQ(S_OK, section->LoadPictureBlt(picture_dc, c.args[0], c.args[1], c.args[2], c.args[3],
                                                RasterOpConstants(c.rop)));
        for (long y = 0; y < 6; ++y) {
            for (long x = 0; x < 8; ++x) {
                const bool inside = x < c.width && y < c.height;
                std::uint32_t expected = 0x111111u;
                if (inside) expected = c.rop == BLACKNESS ? 0 : pattern(c.source_left + x, c.source_top + y);
                ASSERT_EQ(expected, pixel_at(section.get(), x, y)) << c.label << " at (" << x << ", " << y << ")";
            }
        }
    }
}

}  // namespace
}  // namespace vx::test
