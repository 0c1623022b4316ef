// clsBitmap: the image, mask and inverted-image DCs, built once, and the
// client's bitmap that always stays the client's.
#include "imaging/imaging_support.h"

namespace vx::test {
namespace {

com_ptr<_clsBitmap> new_masked_bitmap() { return create<_clsBitmap>(CLSID_clsBitmap, IID__clsBitmap); }

struct masked_facts {
    LONG_PTR image = 0;
    long width = 0, height = 0;
};
masked_facts facts_of(_clsBitmap* masked) {
    masked_facts f;
    LONG v = 0;
    masked->get_ImageDC(&f.image);
    masked->get_Width(&v), f.width = v;
    masked->get_Height(&v), f.height = v;
    return f;
}

LONG_PTR mask_dc(_clsBitmap* masked) {
    LONG_PTR v = -1;
    EXPECT_EQ(S_OK, masked->get_MaskDC(&v));
    return v;
}
LONG_PTR invert_image_dc(_clsBitmap* masked) {
    LONG_PTR v = -1;
    EXPECT_EQ(S_OK, masked->get_InvertImageDC(&v));
    return v;
}

HDC as_dc(LONG_PTR value) { return reinterpret_cast<HDC>(value); }

COLORREF image_colour(int x, int y) { return RGB(x * 7 + 10, y * 13 + 5, (x ^ y) * 9); }

// A client's 32 x 16 bitmap in the screen's format, painted with
// image_colour; not selected anywhere.
HBITMAP client_bitmap() {
    HDC screen = GetDC(nullptr);
    HBITMAP bitmap = CreateCompatibleBitmap(screen, 32, 16);
    ReleaseDC(nullptr, screen);
    HDC dc = CreateCompatibleDC(nullptr);
    HGDIOBJ old = SelectObject(dc, bitmap);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 32; ++x) SetPixel(dc, x, y, image_colour(x, y));
    SelectObject(dc, old);
    DeleteDC(dc);
    return bitmap;
}

bool same_picture(HDC a, HDC b, const char* label) {
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 32; ++x)
            if (GetPixel(a, x, y) != GetPixel(b, x, y)) {
                ADD_FAILURE() << label << ": differs at (" << x << ", " << y << ")";
                return false;
            }
    return true;
}

bool set_bitmap(_clsBitmap* masked, HBITMAP bitmap) {
    LONG_PTR handle = reinterpret_cast<LONG_PTR>(bitmap);
    VARIANT_BOOL done = VARIANT_TRUE;
    EXPECT_EQ(S_OK, masked->SetBitmap(&handle, &done));
    EXPECT_EQ(reinterpret_cast<LONG_PTR>(bitmap), handle) << "NewBitmap is never written";
    return done == VARIANT_TRUE;
}

TEST(MaskedBitmap, MaskIsACopyOfTheImageAndIsBuiltOnce) {
    HBITMAP bitmap = client_bitmap();
    {
        com_ptr<_clsBitmap> masked = new_masked_bitmap();
        ASSERT_TRUE(set_bitmap(masked.get(), bitmap));
        const masked_facts f = facts_of(masked.get());
        EXPECT_EQ(32, f.width);
        EXPECT_EQ(16, f.height);
        ASSERT_NE(0, f.image);
        EXPECT_EQ(bitmap, GetCurrentObject(as_dc(f.image), OBJ_BITMAP)) << "the client's bitmap is in the image DC";
        const long mask = mask_dc(masked.get());
        ASSERT_NE(0, mask);
        EXPECT_NE(f.image, mask) << "a DC of its own";
        EXPECT_NE(bitmap, GetCurrentObject(as_dc(mask), OBJ_BITMAP)) << "with a bitmap of its own";
        same_picture(as_dc(f.image), as_dc(mask), "mask against image");
        EXPECT_EQ(mask, mask_dc(masked.get())) << "a second read gives the same DC";
        // Drawing into the image later does not reach the mask.
        SetPixel(as_dc(f.image), 3, 3, RGB(255, 255, 255));
        EXPECT_EQ(image_colour(3, 3), GetPixel(as_dc(mask), 3, 3)) << "built once";
        const long inverted = invert_image_dc(masked.get());
        EXPECT_NE(0, inverted);
        EXPECT_EQ(inverted, invert_image_dc(masked.get())) << "built once";
        EXPECT_EQ(mask, mask_dc(masked.get()));
    }
    BITMAP record = {};
    EXPECT_NE(0, GetObjectW(bitmap, sizeof record, &record)) << "the client's bitmap survives the instance";
    HDC dc = CreateCompatibleDC(nullptr);
    EXPECT_NE(nullptr, SelectObject(dc, bitmap)) << "and is selected nowhere any more";
    DeleteDC(dc);
    DeleteObject(bitmap);
}

TEST(MaskedBitmap, InvertedImageIsTheImageAndedWithTheMask) {
    struct row {
        const char* label;
        bool draw_into_mask;
    };
    for (const row& r : {row{"unchanged mask: the image", false}, row{"mask drawn into first", true}}) {
        HBITMAP bitmap = client_bitmap();
        {
            com_ptr<_clsBitmap> masked = new_masked_bitmap();
            ASSERT_TRUE(set_bitmap(masked.get(), bitmap));
            long mask = 0;
            if (r.draw_into_mask) {
                mask = mask_dc(masked.get());
                // Black on the left half, white on the right.
                RECT left = {0, 0, 16, 16}, right = {16, 0, 32, 16};
                FillRect(as_dc(mask), &left, static_cast<HBRUSH>(GetStockObject(BLACK_BRUSH)));
                FillRect(as_dc(mask), &right, static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH)));
            }
            const long inverted = invert_image_dc(masked.get());
            ASSERT_NE(0, inverted) << r.label;
            if (!r.draw_into_mask) mask = mask_dc(masked.get());
            EXPECT_NE(0, mask) << r.label << ": the mask was built on the way";
            for (int y = 0; y < 16; ++y)
                for (int x = 0; x < 32; ++x) {
                    const COLORREF expected = r.draw_into_mask && x < 16 ? RGB(0, 0, 0) : image_colour(x, y);
                    ASSERT_EQ(expected, GetPixel(as_dc(inverted), x, y)) << r.label << " at (" << x << ", " << y << ")";
                }
        }
        DeleteObject(bitmap);
    }
}

TEST(MaskedBitmap, RefusedBitmapsReleaseEveryDC) {
    com_ptr<_clsBitmap> masked = new_masked_bitmap();
    HBITMAP bitmap = client_bitmap();
    ASSERT_TRUE(set_bitmap(masked.get(), bitmap));
    const long first_image = facts_of(masked.get()).image;
    const long mask = mask_dc(masked.get());
    ASSERT_NE(0, mask);

    // A second bitmap replaces the image and the size; the mask stays.
    HDC screen = GetDC(nullptr);
    HBITMAP second = CreateCompatibleBitmap(screen, 8, 4);
    ReleaseDC(nullptr, screen);
    ASSERT_TRUE(set_bitmap(masked.get(), second));
    masked_facts f = facts_of(masked.get());
    EXPECT_NE(first_image, f.image);
    EXPECT_EQ(8, f.width);
    EXPECT_EQ(4, f.height);
    EXPECT_EQ(mask, mask_dc(masked.get())) << "the mask of the earlier bitmap stays";
    EXPECT_EQ(bitmap, GetCurrentObject(as_dc(first_image), OBJ_BITMAP)) << "the earlier bitmap stays selected";

    // Still selected in the earlier image DC: the platform refuses it again.
    EXPECT_FALSE(set_bitmap(masked.get(), bitmap)) << "a bitmap selected elsewhere";
    f = facts_of(masked.get());
    EXPECT_EQ(0, f.image) << "every DC released";
    EXPECT_EQ(32, f.width) << "the size just read stays";
    EXPECT_EQ(0u, GetObjectType(as_dc(mask))) << "the mask DC is gone";
    EXPECT_EQ(0u, GetObjectType(as_dc(first_image))) << "so is the earlier image DC";

    EXPECT_FALSE(set_bitmap(masked.get(), nullptr)) << "SetBitmap(0)";
    f = facts_of(masked.get());
    EXPECT_EQ(0, f.image);
    EXPECT_EQ(32, f.width) << "GetObjectA refused: the size is not read";
    for (HBITMAP b : {bitmap, second}) {
        BITMAP record = {};
        EXPECT_NE(0, GetObjectW(b, sizeof record, &record)) << "the client's bitmaps survive";
        DeleteObject(b);
    }
}

}  // namespace
}  // namespace vx::test
