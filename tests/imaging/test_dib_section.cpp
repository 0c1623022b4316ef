// cDIBSection on real GDI: scan-line lengths, the states a section goes
// through, the overflow of the size arithmetic, and PaintPicture checked by
// reading pixels back.
#include "imaging/imaging_support.h"

#include <cstring>
#include <string>

namespace vx::test {
namespace {

TEST(DibSectionScanLine, ThreeBytesAPixelRoundedUpToFour) {
    const long rows[][2] = {{1, 4}, {2, 8}, {3, 12}, {4, 12}, {5, 16}, {101, 304}};  // width, scan line
    for (const auto& r : rows) EXPECT_EQ(r[1], facts_of(new_section(r[0], 2).get()).stride) << "width " << r[0];
    EXPECT_EQ(0, facts_of(new_section().get()).stride) << "a new instance";
}

HGDIOBJ as_handle(LONG_PTR value) { return reinterpret_cast<HGDIOBJ>(value); }

TEST(DibSectionStates, NewLiveReleasedAndRecreated) {
    com_ptr<_cDIBSection> section = new_section();
    section_facts f = facts_of(section.get());
    EXPECT_EQ(0, f.width + f.height + f.stride + f.hdc + f.hdib + f.bits) << "new: every property 0";
    EXPECT_EQ(S_OK, section->ClearUp()) << "ClearUp on a new instance does nothing";

    VARIANT_BOOL made = VARIANT_FALSE;
    ASSERT_EQ(S_OK, section->Create(100, 50, &made));
    const section_facts live = facts_of(section.get());
    EXPECT_TRUE(made && live.width == 100 && live.height == 50 && live.stride == 300 && live.bits);
    EXPECT_EQ(as_handle(live.hdib), GetCurrentObject(static_cast<HDC>(as_handle(live.hdc)), OBJ_BITMAP))
        << "the section is selected into the DC";
    DIBSECTION described = {};
    ASSERT_EQ(static_cast<int>(sizeof described), GetObjectW(as_handle(live.hdib), sizeof described, &described));
    EXPECT_EQ(24, described.dsBm.bmBitsPixel);
    EXPECT_EQ(50 * 300u, described.dsBmih.biSizeImage) << "the memory spans 50 scan lines of 300 bytes";
    std::memset(bits_of(section.get()), 0x5A, 50 * 300);  // every byte is writable

    ASSERT_EQ(S_OK, section->ClearUp());
    f = facts_of(section.get());
    EXPECT_EQ(0, f.hdc + f.hdib + f.bits) << "released: handles and address 0";
    EXPECT_TRUE(f.width == 100 && f.height == 50 && f.stride == 300) << "released: the old size stays";
    EXPECT_EQ(0u, GetObjectType(as_handle(live.hdib)) + GetObjectType(as_handle(live.hdc))) << "both deleted";
    EXPECT_EQ(S_OK, section->ClearUp()) << "ClearUp on a released instance does nothing";

    // A second Create deletes the first section even when it fails.
    ASSERT_EQ(S_OK, section->Create(8, 8, &made));
    const section_facts first = facts_of(section.get());
    ASSERT_EQ(S_OK, section->Create(0, 8, &made));
    EXPECT_EQ(VARIANT_FALSE, made) << "a section 0 pixels wide is refused";
    EXPECT_EQ(0u, GetObjectType(as_handle(first.hdib)) + GetObjectType(as_handle(first.hdc)));
    f = facts_of(section.get());
    EXPECT_EQ(0, f.hdc + f.hdib + f.bits) << "a failed Create leaves the instance released";
    EXPECT_TRUE(f.width == 0 && f.height == 8) << "the header holds the refused size";
}

TEST(DibSectionOverflow, SizeArithmeticRaisesError6) {
    const struct { long width, height; bool scan_line_overflows; } rows[] = {
        {715827882, 1, true}, {-715827883, 1, true}, {100000, 100000, false}, {100000, -100000, false}};
    for (const auto& r : rows) {
        const std::string label = std::to_string(r.width) + " x " + std::to_string(r.height);
        com_ptr<_cDIBSection> section = new_section();
        VARIANT_BOOL made = VARIANT_TRUE;
        EXPECT_EQ(automation_error_number(6), section->Create(r.width, r.height, &made)) << label;
        EXPECT_EQ(L"cDIBSection.Create", take_error_info().source) << label;
        const section_facts f = facts_of(section.get());
        EXPECT_TRUE(f.width == r.width && f.height == r.height) << label << ": the header holds the new size";
        EXPECT_TRUE(f.hdc && !f.hdib) << label << ": the new DC stays, no section";
        LONG stride = 0;
        EXPECT_EQ(r.scan_line_overflows ? automation_error_number(6) : S_OK, section->get_BytesPerScanLine(&stride))
            << label;
        LONG_PTR handle = 0;
        EXPECT_EQ(automation_error_number(6), section->CreateDIB(0, r.width, r.height, &handle, &made)) << label;
        EXPECT_EQ(0, handle) << label << ": CreateDIB made nothing";
        EXPECT_EQ(S_OK, section->RandomiseBits(VARIANT_FALSE)) << label << ": nothing to write";
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

void fill(_cDIBSection* section, bool with_pattern) {
    const section_facts f = facts_of(section);
    for (long y = 0; y < f.height; ++y)
        for (long x = 0; x < f.width; ++x) set_pixel(section, x, y, with_pattern ? pattern(x, y) : 0x111111u);
}

struct blit_case {
    const char* label;
    long args[6];  // as the member takes them after the DC
    DWORD rop;
    // The rectangle that changes, in destination coordinates, and where it
    // comes from.
    long left, top, width, height, source_left, source_top;
};

// Every pixel of the destination: the pattern through the raster op inside
// the rectangle, the 0x111111 it was filled with outside.
void expect_blit(_cDIBSection* destination, const blit_case& c) {
    const section_facts f = facts_of(destination);
    for (long y = 0; y < f.height; ++y)
        for (long x = 0; x < f.width; ++x) {
            std::uint32_t expected = 0x111111u;
            if (x >= c.left && x < c.left + c.width && y >= c.top && y < c.top + c.height)
                expected = c.rop == SRCCOPY ? pattern(c.source_left + x - c.left, c.source_top + y - c.top)
                                            : ~pattern(c.source_left + x - c.left, c.source_top + y - c.top) & 0xFFFFFF;
            ASSERT_EQ(expected, pixel_at(destination, x, y)) << c.label << " at (" << x << ", " << y << ")";
        }
}

// The section is taller than wide, so that its width cannot stand in for
// its height unseen.
TEST(DibSectionPaintPicture, CopiesTheRectangleItIsGiven) {
    const blit_case cases[] = {
        {"every default", {0, 0, -1, -1, 0, 0}, SRCCOPY, 0, 0, 6, 8, 0, 0},
        {"negative width: the section's, -5 as -1", {10, 20, -5, 4, 0, 0}, SRCCOPY, 10, 20, 6, 4, 0, 0},
        {"negative height", {3, 4, 2, -7, 0, 0}, SRCCOPY, 3, 4, 2, 8, 0, 0},
        {"a rectangle inside the section", {1, 2, 2, 3, 4, 3}, SRCCOPY, 1, 2, 2, 3, 4, 3},
        {"raster op passed unchanged", {5, 5, -1, -1, 0, 0}, NOTSRCCOPY, 5, 5, 6, 8, 0, 0},
    };
    for (const blit_case& c : cases) {
        com_ptr<_cDIBSection> section = new_section(6, 8), target = new_section(30, 40);
        fill(section.get(), true);
        fill(target.get(), false);
        ASSERT_EQ(S_OK, section->PaintPicture(facts_of(target.get()).hdc, c.args[0], c.args[1], c.args[2],
                                              c.args[3], c.args[4], c.args[5], RasterOpConstants(c.rop)));
        expect_blit(target.get(), c);
    }
}

}  // namespace
}  // namespace vx::test
