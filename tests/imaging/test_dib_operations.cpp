// RandomiseBits, CreateFromPicture and CopyToClipboard(False) on real GDI,
// OLE pictures and the clipboard.
#include "imaging/imaging_support.h"

#include <olectl.h>

#include <cstring>
#include <vector>

namespace vx::test {
namespace {

TEST(RandomiseBits, BlueIsZeroOrGrayAndPaddingIsUntouched) {
    const struct { long width, height; VARIANT_BOOL gray; } rows[] = {
        {5, 3, VARIANT_FALSE}, {5, 3, VARIANT_TRUE}, {7, 4, VARIANT_FALSE}, {6, 9, VARIANT_TRUE}};
    for (const auto& r : rows) {
        const std::string label = std::to_string(r.width) + "x" + std::to_string(r.height) + (r.gray ? " gray" : "");
        com_ptr<_cDIBSection> section = new_section(r.width, r.height);
        const long stride = facts_of(section.get()).stride;
        std::memset(bits_of(section.get()), 0xAB, stride * r.height);
        ASSERT_EQ(S_OK, section->RandomiseBits(r.gray)) << label;
        const unsigned char* bits = bits_of(section.get());
        bool any_nonzero = false;
        for (long i = 0; i < stride * r.height; ++i) {
            const unsigned char* pixel = bits + i - i % stride % 3;  // the pixel's blue byte
            if (i % stride >= 3 * r.width)
                ASSERT_EQ(0xAB, bits[i]) << label << ": padding byte " << i;
            else if (r.gray)
                ASSERT_TRUE(pixel[0] == pixel[1] && pixel[1] == pixel[2]) << label << ": byte " << i;
            else
                ASSERT_TRUE(i % stride % 3 || !bits[i]) << label << ": blue byte " << i;
            any_nonzero = any_nonzero || bits[i] != 0xAB && bits[i];
        }
        EXPECT_TRUE(any_nonzero) << label << ": something was written";
    }
}

std::uint32_t picture_colour(long x, long y) { return (static_cast<std::uint32_t>(x * 7) << 16) | (y * 16) << 8 | 0x30; }

// An OLE picture that owns a 32 x 16 bitmap of picture_colour.
com_ptr<IPictureDisp> bitmap_picture() {
    BITMAPINFO info = {};
    info.bmiHeader = {sizeof(BITMAPINFOHEADER), 32, -16, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    void* bits = nullptr;
    HBITMAP bitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    EXPECT_NE(nullptr, bitmap);
    for (long y = 0; y < 16; ++y)
        for (long x = 0; x < 32; ++x) static_cast<std::uint32_t*>(bits)[y * 32 + x] = picture_colour(x, y);
    PICTDESC description = {sizeof(PICTDESC), PICTYPE_BITMAP};
    description.bmp.hbitmap = bitmap;
    com_ptr<IPictureDisp> picture;
    EXPECT_EQ(S_OK, OleCreatePictureIndirect(&description, IID_IPictureDisp, TRUE, picture.put_void()));
    return picture;
}

TEST(CreateFromPicture, CopiesABitmapPicture) {
    com_ptr<_cDIBSection> section = new_section(5, 5);
    com_ptr<IPictureDisp> picture = bitmap_picture();
    IPictureDisp* argument = picture.get();
    unique_variant result;
    V_VT(result.get()) = VT_I4;  // anything but Empty, to see it written
    ASSERT_EQ(S_OK, section->CreateFromPicture(&argument, result.get()));
    EXPECT_EQ(VT_EMPTY, V_VT(result.get())) << "the result is an empty VARIANT";
    const section_facts f = facts_of(section.get());
    ASSERT_TRUE(f.width == 32 && f.height == 16 && f.hdib) << f.width << " x " << f.height;
    for (long i = 0; i < 32 * 16; ++i)
        ASSERT_EQ(picture_colour(i % 32, i / 32), pixel_at(section.get(), i % 32, i / 32)) << "pixel " << i;
}

TEST(CopyToClipboard, AsBitmapLeavesOneOfTheSectionsSize) {
    com_ptr<_cDIBSection> section = new_section(37, 21);
    for (long i = 0; i < 37 * 21; ++i) set_pixel(section.get(), i % 37, i / 37, picture_colour(i % 37, i / 37));
    VARIANT_BOOL copied = VARIANT_FALSE;
    ASSERT_EQ(S_OK, section->CopyToClipboard(VARIANT_FALSE, &copied));
    EXPECT_EQ(VARIANT_TRUE, copied);
    ASSERT_TRUE(OpenClipboard(nullptr));
    const HBITMAP bitmap = static_cast<HBITMAP>(GetClipboardData(CF_BITMAP));
    BITMAP record = {};
    EXPECT_TRUE(GetObjectW(bitmap, sizeof record, &record) && record.bmWidth == 37 && record.bmHeight == 21);
    // Read back at 32 bits per pixel, top-down.
    BITMAPINFO info = {};
    info.bmiHeader = {sizeof(BITMAPINFOHEADER), 37, -21, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    std::vector<std::uint32_t> pixels(37 * 21);
    HDC screen = GetDC(nullptr);
    EXPECT_EQ(21, GetDIBits(screen, bitmap, 0, 21, pixels.data(), &info, DIB_RGB_COLORS));
    ReleaseDC(nullptr, screen);
    CloseClipboard();
    for (long i = 0; i < 37 * 21; i += 17)
        EXPECT_EQ(picture_colour(i % 37, i / 37), pixels[i] & 0xFFFFFF) << "pixel " << i;
}

}  // namespace
}  // namespace vx::test
