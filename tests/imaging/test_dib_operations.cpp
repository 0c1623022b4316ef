// RandomiseBits, CreateFromPicture and CopyToClipboard(False) on real GDI,
// OLE pictures and the clipboard.
#include "frame/runtime.h"
#include "imaging/imaging_support.h"

#include <olectl.h>

#include <cstring>
#include <limits>
#include <vector>

namespace vx::test {
namespace {

constexpr unsigned char padding_marker = 0xAB;

TEST(RandomiseBits, BlueIsZeroOrGrayAndPaddingIsUntouched) {
    struct row {
        long width, height;
        VARIANT_BOOL gray;
    };
    const row rows[] = {{5, 3, VARIANT_FALSE}, {5, 3, VARIANT_TRUE}, {7, 4, VARIANT_FALSE},
                        {6, 9, VARIANT_TRUE},  {64, 64, VARIANT_FALSE}};
    for (const row& r : rows) {
        const std::string label = std::to_string(r.width) + "x" + std::to_string(r.height) + (r.gray ? " gray" : " colour");
        com_ptr<_cDIBSection> section = new_section(r.width, r.height);
        const long stride = facts_of(section.get()).stride;
        unsigned char* bits = bits_of(section.get());
        std::memset(bits, padding_marker, stride * r.height);
        ASSERT_EQ(S_OK, section->RandomiseBits(r.gray)) << label;
        bits = bits_of(section.get());
        bool any_nonzero = false;
        for (long line = 0; line < r.height; ++line) {
            const unsigned char* scan = bits + line * stride;
            for (long p = 0; p < r.width; ++p) {
                const unsigned char* pixel = scan + 3 * p;
                if (r.gray) {
                    ASSERT_TRUE(pixel[0] == pixel[1] && pixel[1] == pixel[2]) << label << ": pixel " << p;
                } else {
                    ASSERT_EQ(0, pixel[0]) << label << ": blue of pixel " << p << ", scan line " << line;
                }
                any_nonzero = any_nonzero || pixel[1] != 0;
            }
            for (long x = 3 * r.width; x < stride; ++x)
                ASSERT_EQ(padding_marker, scan[x]) << label << ": padding byte " << x << " of scan line " << line;
        }
        EXPECT_TRUE(any_nonzero) << label << ": something was written";
    }
}

float fixed_clock() { return 1234.5f; }
float other_clock() { return 42.25f; }

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
    EXPECT_EQ(32, f.width);
    EXPECT_EQ(16, f.height);
    EXPECT_NE(0, f.hdib);
    for (long y = 0; y < 16; ++y)
        for (long x = 0; x < 32; ++x)
            ASSERT_EQ(picture_colour(x, y), pixel_at(section.get(), x, y)) << "pixel (" << x << ", " << y << ")";
}

TEST(CopyToClipboard, AsBitmapLeavesOneOfTheSectionsSize) {
    com_ptr<_cDIBSection> section = new_section(37, 21);
    for (long y = 0; y < 21; ++y)
        for (long x = 0; x < 37; ++x) set_pixel(section.get(), x, y, picture_colour(x, y));
    VARIANT_BOOL copied = VARIANT_FALSE;
    ASSERT_EQ(S_OK, section->CopyToClipboard(VARIANT_FALSE, &copied));
    EXPECT_EQ(VARIANT_TRUE, copied);
    ASSERT_TRUE(OpenClipboard(nullptr));
    const HBITMAP bitmap = static_cast<HBITMAP>(GetClipboardData(CF_BITMAP));
    ASSERT_NE(nullptr, bitmap) << "a CF_BITMAP is on the clipboard";
    BITMAP record = {};
    ASSERT_NE(0, GetObjectW(bitmap, sizeof record, &record));
    EXPECT_EQ(37, record.bmWidth);
    EXPECT_EQ(21, record.bmHeight);
    // Read back at 32 bits per pixel, top-down.
    BITMAPINFO info = {};
    info.bmiHeader = {sizeof(BITMAPINFOHEADER), 37, -21, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
    std::vector<std::uint32_t> pixels(37 * 21);
    HDC screen = GetDC(nullptr);
    EXPECT_EQ(21, GetDIBits(screen, bitmap, 0, 21, pixels.data(), &info, DIB_RGB_COLORS));
    ReleaseDC(nullptr, screen);
    CloseClipboard();
    for (long y : {0L, 10L, 20L})
        for (long x : {0L, 17L, 36L})
            EXPECT_EQ(picture_colour(x, y), pixels[y * 37 + x] & 0xFFFFFF) << "pixel (" << x << ", " << y << ")";
}

}  // namespace
}  // namespace vx::test
