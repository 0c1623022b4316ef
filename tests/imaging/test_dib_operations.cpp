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

TEST(RandomiseBits, EndValuesAreHalfAsFrequent) {
    com_ptr<_cDIBSection> section = new_section(256, 256);
    ASSERT_EQ(S_OK, section->RandomiseBits(VARIANT_FALSE));
    const unsigned char* bits = bits_of(section.get());
    std::vector<long> counts(256, 0);
    for (long i = 0; i < 256 * 256; ++i) {
        ++counts[bits[3 * i + 1]];
        ++counts[bits[3 * i + 2]];
    }
    const double middle = (2.0 * 256 * 256 - counts[0] - counts[255]) / 254;  // about 514
    for (int v : {0, 255})
        EXPECT_TRUE(counts[v] > 0.35 * middle && counts[v] < 0.65 * middle) << "value " << v << ": " << counts[v];
    for (int v = 1; v < 255; ++v)
        EXPECT_TRUE(counts[v] > 0.6 * middle && counts[v] < 1.4 * middle) << "value " << v << ": " << counts[v];
}

float fixed_clock() { return 1234.5f; }
float other_clock() { return 42.25f; }

TEST(RandomiseBits, ReseedsFromTheTimeOfDayEveryCall) {
    const auto randomised = [](time_of_day_source clock) {
        scoped_time_of_day_source seam(clock);
        com_ptr<_cDIBSection> section = create_local<_cDIBSection>(CLSID_cDIBSection, IID__cDIBSection);
        VARIANT_BOOL made = VARIANT_FALSE;
        section->Create(16, 16, &made);
        section->RandomiseBits(VARIANT_TRUE);
        const unsigned char* bits = bits_of(section.get());
        return std::vector<unsigned char>(bits, bits + 48 * 16);
    };
    EXPECT_EQ(randomised(fixed_clock), randomised(fixed_clock)) << "the same time of day, the same pixels";
    EXPECT_NE(randomised(fixed_clock), randomised(other_clock)) << "another time of day, other pixels";
}

TEST(RandomiseBits, ReleasedOrNewInstancesWriteNothing) {
    com_ptr<_cDIBSection> released = new_section(40, 40);
    released->ClearUp();
    EXPECT_EQ(S_OK, released->RandomiseBits(VARIANT_FALSE)) << "released, old size 40 x 40";
    EXPECT_EQ(S_OK, released->RandomiseBits(VARIANT_TRUE));
    EXPECT_EQ(S_OK, new_section()->RandomiseBits(VARIANT_FALSE)) << "new";
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
    EXPECT_EQ(32, f.width);
    EXPECT_EQ(16, f.height);
    EXPECT_NE(0, f.hdib);
    for (long y = 0; y < 16; ++y)
        for (long x = 0; x < 32; ++x)
            ASSERT_EQ(picture_colour(x, y), pixel_at(section.get(), x, y)) << "pixel (" << x << ", " << y << ")";
}

TEST(CreateFromPicture, UnsetOrUnusablePictures) {
    com_ptr<_cDIBSection> section = new_section(5, 5);
    const section_facts before = facts_of(section.get());
    IPictureDisp* nothing = nullptr;
    unique_variant result;
    EXPECT_EQ(automation_error_number(91), section->CreateFromPicture(&nothing, result.get())) << "unset picture";
    EXPECT_EQ(L"cDIBSection.CreateFromPicture", take_error_info().source);
    EXPECT_EQ(before.hdib, facts_of(section.get()).hdib) << "an unset picture changes nothing";
    EXPECT_EQ(before.hdc, facts_of(section.get()).hdc);

    // An icon is no bitmap: a 0 x 0 section, which the platform refuses.
    PICTDESC description = {sizeof(PICTDESC), PICTYPE_ICON};
    description.icon.hicon = LoadIconW(nullptr, reinterpret_cast<LPCWSTR>(IDI_APPLICATION));
    com_ptr<IPictureDisp> icon;
    ASSERT_EQ(S_OK, OleCreatePictureIndirect(&description, IID_IPictureDisp, FALSE, icon.put_void()));
    IPictureDisp* argument = icon.get();
    EXPECT_EQ(S_OK, section->CreateFromPicture(&argument, result.get())) << "icon";
    EXPECT_EQ(VT_EMPTY, V_VT(result.get()));
    const section_facts after = facts_of(section.get());
    EXPECT_EQ(0, after.hdib) << "icon: released";
    EXPECT_EQ(0, after.hdc) << "icon: released";
    EXPECT_EQ(0u, GetObjectType(reinterpret_cast<HGDIOBJ>(static_cast<LONG_PTR>(before.hdib))))
        << "the old section is gone";
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

// A section without pixels (new, or released) asks the platform for a 0 x 0
// bitmap and gets its shared stock 1 x 1 monochrome bitmap. That is nobody's
// to give away: the clipboard deletes what it holds when it is next emptied,
// and Wine then has no initial bitmap for a new memory DC (every later
// CreateCompatibleDC crashed). The clipboard gets a 1 x 1 monochrome bitmap
// of its own instead.
TEST(CopyToClipboard, ASectionWithoutPixelsGivesNoStockObjectAway) {
    const HBITMAP stock = CreateCompatibleBitmap(nullptr, 0, 0);  // the shared one; not to be deleted
    com_ptr<_cDIBSection> empty = new_section();
    VARIANT_BOOL copied = VARIANT_FALSE;
    ASSERT_EQ(S_OK, empty->CopyToClipboard(VARIANT_FALSE, &copied));
    EXPECT_EQ(VARIANT_TRUE, copied);
    ASSERT_TRUE(OpenClipboard(nullptr));
    const HBITMAP held = static_cast<HBITMAP>(GetClipboardData(CF_BITMAP));
    BITMAP record = {};
    const bool readable = held && GetObjectW(held, sizeof record, &record) != 0;
    CloseClipboard();
    EXPECT_NE(stock, held) << "the stock bitmap went to the clipboard";
    EXPECT_TRUE(readable);
    EXPECT_EQ(1, record.bmWidth);
    EXPECT_EQ(1, record.bmHeight);
    EXPECT_EQ(1, record.bmBitsPixel);
    // A live section's copy empties the clipboard, which deletes what it held.
    com_ptr<_cDIBSection> live = new_section(4, 4);
    ASSERT_EQ(S_OK, live->CopyToClipboard(VARIANT_FALSE, &copied));
    EXPECT_EQ(OBJ_BITMAP, GetObjectType(stock)) << "the stock bitmap survives";
    com_ptr<_cDIBSection> after = new_section(8, 8);  // a memory DC can still be made
    EXPECT_NE(0, facts_of(after.get()).hdc);
}

// Windows makes no bitmap of a negative size, so a section whose Create was
// refused for one (or raised the overflow error for one) copies nothing.
// Wine's CreateCompatibleBitmap takes the magnitude instead and, for the
// smallest Long, made a bitmap that crashed the copy.
TEST(CopyToClipboard, ANegativeSizeCopiesNothing) {
    struct size_case {
        LONG width, height;
        HRESULT create;
    };
    const size_case cases[] = {
        {-5, 10, S_OK},
        {10, -5, S_OK},
        {std::numeric_limits<LONG>::min(), -1, automation_error_number(6)},
        {-715827883, 2, automation_error_number(6)},
    };
    for (const size_case& c : cases) {
        com_ptr<_cDIBSection> section = new_section();
        VARIANT_BOOL made = VARIANT_TRUE;
        EXPECT_EQ(c.create, section->Create(c.width, c.height, &made)) << c.width << " x " << c.height;
        VARIANT_BOOL copied = VARIANT_TRUE;
        EXPECT_EQ(S_OK, section->CopyToClipboard(VARIANT_FALSE, &copied)) << c.width << " x " << c.height;
        EXPECT_EQ(VARIANT_FALSE, copied) << c.width << " x " << c.height;
    }
}

}  // namespace
}  // namespace vx::test
